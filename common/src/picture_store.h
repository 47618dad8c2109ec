#ifndef COMMON_PICTURE_STORE_H
#define COMMON_PICTURE_STORE_H

#include "picture_data.h"

// Writes captured frames as 24-bit BMP files into the dump directory. Switched on for the life
// of the process by the presence of the marker file when the instance is first made.
class PictureStore {
public:
    static PictureStore* getInstance();

    bool enableDumpPicture();
    void savePicture(korvane::ai::PictureData* pPictureData, const char* fileName);

    ~PictureStore();

private:
    PictureStore();
    bool m_enableDumpPictureData;
};

#endif
