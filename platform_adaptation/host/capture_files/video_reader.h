#ifndef PLATFORM_HOST_CAPTURE_FILES_VIDEO_READER_H
#define PLATFORM_HOST_CAPTURE_FILES_VIDEO_READER_H

#include <cstdint>
#include <string>
#include <vector>

struct AVCodecContext;
struct AVFormatContext;
struct AVFrame;
struct AVPacket;
struct SwsContext;

namespace capture_files {

// A video file played in a loop. A picture is the first frame decoded from the keyframe at or
// before the play position, scaled straight to 224 x 224 RGB: one seek and a short decode instead
// of decoding every frame up to the exact position. The demuxer and decoder stay open between
// pictures.
class VideoReader {
public:
    VideoReader();
    ~VideoReader();
    VideoReader(const VideoReader&) = delete;
    VideoReader& operator=(const VideoReader&) = delete;

    // On success *note describes the video, on failure it holds the reason.
    bool open(const std::string& path, std::string* note);
    // positionUs: play position since open, wrapped at the end of the video. On failure rgb is
    // untouched.
    bool read(int64_t positionUs, uint8_t* rgb, std::string* note);

private:
    // Identity of the packet a seek landed on.
    struct PacketKey {
        bool known = false;
        int64_t position = -1;
        int64_t dts = 0;
    };

    bool seekTo(int64_t timestamp, std::string* error);
    // afterSeek: the first packet may be the one the kept picture came from; then *reused is set
    // and nothing is decoded.
    bool decodeFrame(bool afterSeek, bool* reused, std::string* error);
    bool scaleInto(std::string* error);

    std::string m_path;
    AVFormatContext* m_format = nullptr;
    AVCodecContext* m_decoder = nullptr;
    AVPacket* m_packet = nullptr;
    AVFrame* m_frame = nullptr;
    SwsContext* m_scaler = nullptr;
    SwsContext* m_tunedScaler = nullptr;
    int m_tunedRange = -1;
    int m_tunedSpace = -1;
    int m_stream = -1;
    int64_t m_startTimestamp = 0;
    int64_t m_durationUs = 0;  // 0: unknown, the video is played on frame by frame instead
    // Positions in one group of pictures land on the same keyframe and so on the same picture:
    // the last one is kept rather than decoded again.
    std::vector<uint8_t> m_picture;
    bool m_haveKeyframe = false;
    PacketKey m_keyframe;
    PacketKey m_pendingKey;
};

}  // namespace capture_files

#endif
