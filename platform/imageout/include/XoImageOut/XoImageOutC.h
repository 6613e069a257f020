/* The image service for renderer plug-ins: a plug-in publishes the images it
 * makes, pass after pass, and the host sends them to whoever watches the
 * render (the controlling application of a live render). A plug-in that never
 * calls it works as before; one that calls it while nobody watches pays for
 * the argument checks only.
 *
 *   const char* channels[] = {"R", "G", "B", "A"};
 *   XoImageOutImage* beauty = XoImageOutOpen("beauty", 512, 512, 4, channels, kXoImageHalf);
 *   ... each pass: XoImageOutWrite(beauty, 0, 0, 512, 512, rgba, 512 * 16, kXoImageFloat,
 *                                  samples, sceneState);
 *                  XoImageOutPassDone(beauty);
 *   XoImageOutClose(beauty);
 *
 * Pixels are interleaved channels, rows top to bottom. An image keeps its
 * pixels from pass to pass, so a pass may write only the tiles it changed.
 * Rectangles of one pass may be written concurrently from several threads as
 * long as they do not overlap; XoImageOutPassDone comes after all of them.
 * Every call is otherwise thread-safe. Errors are one line on the "ImageOut"
 * log channel and a return value of -1 (NULL for open). */
#ifndef XOIMAGEOUT_XOIMAGEOUTC_H
#define XOIMAGEOUT_XOIMAGEOUTC_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Pixel types: 16-bit and 32-bit IEEE floating point. */
enum { kXoImageHalf = 1, kXoImageFloat = 2 };

typedef struct XoImageOutImage XoImageOutImage;

/* Opens an image named `name` (unique among the open images of the process),
 * `width` x `height` pixels (1 to 32768 each) of `channelCount` channels (1
 * to 64, names unique and non-empty) stored as `pixelType`. Names are up to
 * 255 bytes. */
XoImageOutImage* XoImageOutOpen(const char* name, int width, int height, int channelCount,
                                const char* const* channelNames, int pixelType);

/* Writes the rectangle at (x, y) of `width` x `height` pixels that lies
 * within the image, from `pixels` of `pixelType` (converted to the image's
 * type), rows `rowBytes` apart. The rectangle holds `samples` samples per
 * pixel of scene state `sceneState` (see XoImageOutUpdateCount). */
int XoImageOutWrite(XoImageOutImage* image, int x, int y, int width, int height,
                    const void* pixels, size_t rowBytes, int pixelType, uint64_t samples,
                    uint64_t sceneState);

/* The pass is complete: the image as written so far is published, replacing
 * an earlier pass that has not left yet. Its sample count and scene state
 * are the least of those of the rectangles it holds. */
int XoImageOutPassDone(XoImageOutImage* image);

/* Whether anybody takes this image now: a plug-in may skip the work of an
 * output that nobody watches. 1 or 0. */
int XoImageOutWanted(const XoImageOutImage* image);

/* Closes the image and frees it; NULL is ignored. */
void XoImageOutClose(XoImageOutImage* image);

/* The number of scene updates the live session has handed to the plug-in so
 * far, counting the one being delivered: read it in submitUpdate and keep
 * it with the update; a pass rendered with that update applied is of that
 * scene state. 0 before the first update. */
uint64_t XoImageOutUpdateCount(void);

#ifdef __cplusplus
}
#endif

#endif
