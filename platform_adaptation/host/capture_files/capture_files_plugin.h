#ifndef PLATFORM_HOST_CAPTURE_FILES_PLUGIN_H
#define PLATFORM_HOST_CAPTURE_FILES_PLUGIN_H

// Boundary between the host frame grabber and the plug-in that reads images and videos. The
// grabber loads the plug-in with dlopen only when a file source is configured, so a daemon on the
// built-in scenes never maps the image and video libraries. Plain C: nothing of C++ crosses it.

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// Raised whenever a signature below changes; the grabber refuses a plug-in built for another.
#define AIPQ_CAPTURE_FILES_ABI 1

#define AIPQ_CAPTURE_FILES_WIDTH 224
#define AIPQ_CAPTURE_FILES_HEIGHT 224

typedef struct AipqCaptureFiles AipqCaptureFiles;

typedef int (*AipqCaptureFilesAbiFn)(void);
typedef AipqCaptureFiles* (*AipqCaptureFilesOpenFn)(const char* source, char* text, size_t textSize);
typedef int (*AipqCaptureFilesReadFn)(AipqCaptureFiles* handle, uint8_t* rgb, int64_t positionUs, char* text,
                                      size_t textSize);
typedef void (*AipqCaptureFilesCloseFn)(AipqCaptureFiles* handle);

// The interface version the plug-in was built with.
int aipq_capture_files_abi(void);

// Opens an image, a directory of images (taken in name order, wrapping) or a video (looping). On
// success returns a handle and describes the source in text; on failure returns NULL with the
// reason in text. text is always NUL-terminated when textSize > 0.
AipqCaptureFiles* aipq_capture_files_open(const char* source, char* text, size_t textSize);

// Writes the next picture, 224 x 224 RGB, 3 bytes a pixel, rows packed, into rgb. For a video,
// positionUs is the play position since the source was opened. Returns 1 and a note of what was
// read in text, or 0 and the reason in text; rgb is left untouched on failure.
int aipq_capture_files_read(AipqCaptureFiles* handle, uint8_t* rgb, int64_t positionUs, char* text,
                            size_t textSize);

void aipq_capture_files_close(AipqCaptureFiles* handle);

#ifdef __cplusplus
}
#endif

#endif
