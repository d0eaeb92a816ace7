#! /usr/bin/env bash
# SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
# SPDX-License-Identifier: GPL-2.0-or-later
#
# Extracts the plug-in's translatable texts into its catalogue template. The
# translation tooling sets $XGETTEXT (xgettext with the KI18n keywords) and
# $podir; scripts/extract-messages.sh sets them the same way for a local run.
# The settings dialog passes its texts through translated(), hence the extra
# keyword.
$XGETTEXT -ktranslated $(find src -name '*.cpp' -o -name '*.h' | sort) -o "$podir/zav-screensaver_slideshow.pot"
