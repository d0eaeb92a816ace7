/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

#ifndef ZAV_POSITION_H
#define ZAV_POSITION_H

namespace Dm
{
namespace ScreenSaver
{
// How an image is fitted to the screen. The integer value is what the
// "Position" setting stores and what crosses threads as an int. The underlying
// type is fixed so that any int from the settings is a valid value to hold
// (unknown ones are stretched with a warning).
enum Position : int {
    Stretch = 0, // scaled to exactly the target size, aspect ratio ignored
    Crop = 1, // scaled to cover the target, the overflow cut evenly
    Tile = 2, // unscaled, repeated from the top-left corner
    Center = 3, // unscaled, in the middle of a black canvas
    Fit = 4, // whole, as large as fits, over a blurred and darkened fill of itself
};
}
}

#endif // ZAV_POSITION_H
