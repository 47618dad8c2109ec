#ifndef COMMON_AI_COMMON_H
#define COMMON_AI_COMMON_H

#include "picture_data.h"

// Decimal conversion for counts and switches: 0, negative, malformed or out-of-range text gives
// the fallback. Never throws; the caller's errno survives.
int str2int(const char* text, int fallback);
// Logs count bytes as "n, " decimal numbers after the title.
void outputCharSerial(const char* title, const char* bytes, int count);
bool fileExist(const char* path);
// Kernel thread id of the caller.
int currentThread();
// Null buffer, 224 x 224, colour mode 4: the picture the AI service expects.
void initPictureData(korvane::ai::PictureData& picture);
int getChannels(korvane::ai::ColorMode mode);

#endif
