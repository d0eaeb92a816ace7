/*
    SPDX-FileCopyrightText: 2026 The zav-screensaver-slideshow authors
    SPDX-License-Identifier: GPL-2.0-or-later
*/

#ifndef ZAV_LOGTEXTS_H
#define ZAV_LOGTEXTS_H

// Every text of the plug-in's log that the tests compare, written once, as
// the plug-in must write it: the tests' own copy, so that a change of a text
// in the code is caught. Where the plug-in streams a value after the text,
// TestUtils::logText() appends it as the debug stream prints it.
namespace LogText
{
constexpr char category[] = "zav-tev.screensaver.slideshow";

// The worker.
constexpr char cleaningStarted[] = "ImageCacheWorker: the cleaning of all cache data is initiated.";
constexpr char cleaningDone[] = "ImageCacheWorker: All cache data are cleaned.";
constexpr char queued[] = "ImageCacheWorker: setting a request for image processing in the queue for:";
constexpr char alreadyWaiting[] = "ImageCacheWorker: the request is already waiting for the way:";
constexpr char alreadyCached[] = "ImageCacheWorker: the image is already caching with the correct size, the request for the request:";
constexpr char invalidRequest[] = "ImageCacheWorker: requestProcessimage is called with invalid geometry, pass:";
constexpr char internalProcessing[] = "ImageCacheWorker: internal image processing:";
constexpr char fromOtherPath[] =
    "ImageCacheWorker: The image has already been caching (from the other path) with the correct size, the passage of internal re -processing:";
constexpr char skippedCleaned[] = "ImageCacheWorker: the request was made before the cache was cleaned, skipped without processing:";
constexpr char skippedPassed[] = "ImageCacheWorker: the show has passed this slide, skipped without processing:";
constexpr char droppedCleaned[] = "ImageCacheWorker: the image was prepared for a cache that has been cleaned since, it is dropped:";
constexpr char cacheSize[] = "ImageCacheWorker: The current size of the cache:";
constexpr char cacheOrderSize[] = ". Cache order size:";
constexpr char eviction[] = "ImageCacheWorker: The size of the cache is exceeded, the removal of the oldest image:";
constexpr char evictionNewSize[] = ". New size of the cache:";
constexpr char lookup[] = "ImageCacheWorker: return of a caching image for:";
constexpr char synchronous[] = "ImageCacheWorker: Image synchronous processing:";
constexpr char synchronousLookup[] = "ImageCacheWorker: return of a synchronously cached image for:";
constexpr char invalidLookup[] = "ImageCacheWorker: getCachedImage is called with invalid geometry, pass:";
constexpr char invalidSynchronous[] = "ImageCacheWorker: processImageSynchronously called with invalid geometry, pass:";
constexpr char nullImage[] = "ImageCacheWorker: The processed image is equal to NULL for the way:";
constexpr char unknownPosition[] = "ImageCacheWorker: Unknown positioning mode, return to stretching for the path:";
// Streamed with the budget, the time limit and the path between them.
constexpr char givenUp[] = "ImageCacheWorker: Reading and decoding took more than";
constexpr char givenUpBudget[] = "ms of processor time or";
constexpr char givenUpLimit[] = "ms in all, the image is given up:";
// Formatted with the path (%0), then quoted as a whole.
constexpr char loadFailed[] = "ImageCacheWorker: It was not possible to load the original image: %0 ";

// The label.
constexpr char threadStarted[] = "SlideLabel: Cache thread started.";
constexpr char settingDirectory[] = "SlideLabel: Setting directory to:";
constexpr char settingPosition[] = "SlideLabel: Setting position to:";
constexpr char resized[] = "SlideLabel: resizeEvent called with size:";
constexpr char listed[] = "SlideLabel: Directory listed, images:";
constexpr char joined[] = "SlideLabel: Image joined the show:";
constexpr char left[] = "SlideLabel: Image left the show:";
constexpr char truncated[] = "SlideLabel: More images than the show takes, only the first are shown:";
constexpr char cachedShown[] = "SlideLabel: Image cached for current/previous key, triggering update:";
constexpr char cachedNotShown[] = "SlideLabel: Image cached, but not current/previous, update not required:";
constexpr char currentMissing[] = "SlideLabel: Current image is not available from worker for drawing:";
constexpr char previousMissing[] = "SlideLabel: Previous image is not available from worker for drawing:";
constexpr char onlyMissing[] = "SlideLabel: The only image is not available from worker for drawing:";
// Formatted with the folder (%0), then quoted as a whole.
constexpr char noImages[] = "SlideLabel: The specified directory (%0) does not exist or does not contain image files.";
// The old shutdown's warning, which a teardown that never waits cannot log.
constexpr char shutdownTimeout[] = "SlideLabel: Cache thread did not finish correctly within the timeout.";

// The dialog, in the default category: a choice box filled twice.
constexpr char comboBoxAgain[] = "alignmentComboBox is already";

// The show.
constexpr char widgetProperty[] = "SlideShow Widget set property:";
constexpr char showProperty[] = "SlideShow set property:";
}

#endif // ZAV_LOGTEXTS_H
