#ifndef COMMON_PICTURE_STORE_H
#define COMMON_PICTURE_STORE_H

#include <string>

#include "picture_data.h"

// Writes captured frames as 24-bit BMP files into the dump directory. Switched on for the life
// of the process by the presence of the marker file when the instance is first made. A file that
// cannot be written whole is logged and removed.
class PictureStore {
public:
    static PictureStore* getInstance();
    // Test seam: a separate instance with its own marker file and dump directory; the caller owns
    // it. The daemon only ever uses getInstance().
    static PictureStore* createForTest(const std::string& markerPath, const std::string& dumpDir);

    bool enableDumpPicture();
    void savePicture(korvane::ai::PictureData* pPictureData, const char* fileName);

    ~PictureStore();

private:
    PictureStore();
    PictureStore(const char* markerPath, const char* dumpDir);
    bool m_enableDumpPictureData;
    std::string m_dumpDir;
};

#endif
