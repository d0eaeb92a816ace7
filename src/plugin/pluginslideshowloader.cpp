/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

// The plug-in's entry. The factory that a host reaches through Qt's plug-in
// mechanism comes with the screensaver widget; until then the module carries
// the library alone.
#include "plugin/slideshowconstants.h"
