#!/usr/bin/env bash
# SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
# SPDX-License-Identifier: GPL-2.0-or-later
#
# Runs Messages.sh as the translation tooling does and writes the catalogue
# template:
#   scripts/extract-messages.sh [DIR]   (default po: po/zav-screensaver_slideshow.pot)
# Then merge it into a translation with
#   msgmerge --update po/ru/zav-screensaver_slideshow.po po/zav-screensaver_slideshow.pot
set -euo pipefail
cd "$(dirname "$0")/.."
export podir=${1:-po}
# The KI18n keywords, as the KDE tooling passes them to xgettext.
keywords=(-ci18n
    -ki18n:1 -ki18nc:1c,2 -ki18np:1,2 -ki18ncp:1c,2,3
    -ki18nd:2 -ki18ndc:2c,3 -ki18ndp:2,3 -ki18ndcp:2c,3,4
    -kki18n:1 -kki18nc:1c,2 -kki18np:1,2 -kki18ncp:1c,2,3
    -kki18nd:2 -kki18ndc:2c,3 -kki18ndp:2,3 -kki18ndcp:2c,3,4
    -kxi18n:1 -kxi18nc:1c,2 -kxi18np:1,2 -kxi18ncp:1c,2,3
    -kkxi18n:1 -kkxi18nc:1c,2 -kkxi18np:1,2 -kkxi18ncp:1c,2,3
    -kI18N_NOOP:1 -kI18NC_NOOP:1c,2 -kI18N_NOOP2:1c,2 -kI18N_NOOP2_NOSTRIP:1c,2
    -kkli18n:1 -kkli18nc:1c,2 -kkli18np:1,2 -kkli18ncp:1c,2,3)
export XGETTEXT="xgettext --from-code=UTF-8 -C --kde ${keywords[*]} --add-location=file --omit-header"
bash Messages.sh
