#include "video_reader.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/pixdesc.h>
#include <libswscale/swscale.h>
}

#include <cstdio>
#include <cstring>

#include "capture_files_plugin.h"

namespace capture_files {

namespace {

constexpr int kWidth = AIPQ_CAPTURE_FILES_WIDTH;
constexpr int kHeight = AIPQ_CAPTURE_FILES_HEIGHT;
constexpr size_t kPictureBytes = static_cast<size_t>(kWidth) * kHeight * 3;
// A keyframe's picture needs a handful of packets at most (decoder delay); a stream that gives
// none after this many is broken, and reading on would only burn the capture period.
constexpr int kMaxPacketsPerFrame = 256;

std::string avError(int code) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {0};
    av_strerror(code, text, sizeof(text));
    return text;
}

std::string seconds(double value) {
    char text[32];
    std::snprintf(text, sizeof(text), "%.3f s", value);
    return text;
}

// The full-range variants are deprecated in the scaler: it wants the plain format and the range.
AVPixelFormat plainFormat(AVPixelFormat format, int* fullRange) {
    switch (format) {
        case AV_PIX_FMT_YUVJ420P:
            *fullRange = 1;
            return AV_PIX_FMT_YUV420P;
        case AV_PIX_FMT_YUVJ422P:
            *fullRange = 1;
            return AV_PIX_FMT_YUV422P;
        case AV_PIX_FMT_YUVJ444P:
            *fullRange = 1;
            return AV_PIX_FMT_YUV444P;
        case AV_PIX_FMT_YUVJ440P:
            *fullRange = 1;
            return AV_PIX_FMT_YUV440P;
        case AV_PIX_FMT_YUVJ411P:
            *fullRange = 1;
            return AV_PIX_FMT_YUV411P;
        default:
            return format;
    }
}

}  // namespace

VideoReader::VideoReader() = default;

VideoReader::~VideoReader() {
    sws_freeContext(m_scaler);
    av_frame_free(&m_frame);
    av_packet_free(&m_packet);
    avcodec_free_context(&m_decoder);
    avformat_close_input(&m_format);
}

bool VideoReader::open(const std::string& path, std::string* note) {
    m_path = path;
    const std::string notVideo = "capture source " + path + " is neither an image nor a readable video: ";
    int rc = avformat_open_input(&m_format, path.c_str(), nullptr, nullptr);
    if (rc < 0) {
        *note = notVideo + avError(rc) + ".";
        return false;
    }
    rc = avformat_find_stream_info(m_format, nullptr);
    if (rc < 0) {
        *note = notVideo + avError(rc) + ".";
        return false;
    }
    const AVCodec* codec = nullptr;
    m_stream = av_find_best_stream(m_format, AVMEDIA_TYPE_VIDEO, -1, -1, &codec, 0);
    if (m_stream < 0 || codec == nullptr) {
        *note = notVideo +
                (m_stream == AVERROR_DECODER_NOT_FOUND ? "no decoder for its video." : "no video stream.");
        return false;
    }
    AVStream* stream = m_format->streams[m_stream];
    m_decoder = avcodec_alloc_context3(codec);
    m_packet = av_packet_alloc();
    m_frame = av_frame_alloc();
    if (m_decoder == nullptr || m_packet == nullptr || m_frame == nullptr) {
        *note = notVideo + "out of memory.";
        return false;
    }
    rc = avcodec_parameters_to_context(m_decoder, stream->codecpar);
    // One picture every few seconds: decoder threads would only add frames of delay and stacks.
    m_decoder->thread_count = 1;
    // The picture ends up 224 x 224: deblocking and exact rounding cannot be seen there, and
    // decoders that can decode at 1/2, 1/4 or 1/8 size do, as long as both sides stay >= 224.
    m_decoder->skip_loop_filter = AVDISCARD_ALL;
    m_decoder->flags2 |= AV_CODEC_FLAG2_FAST;
    int lowres = 0;
    while (lowres < codec->max_lowres && (stream->codecpar->width >> (lowres + 1)) >= kWidth &&
           (stream->codecpar->height >> (lowres + 1)) >= kHeight) {
        ++lowres;
    }
    m_decoder->lowres = lowres;
    if (rc >= 0) {
        rc = avcodec_open2(m_decoder, codec, nullptr);
    }
    if (rc < 0) {
        *note = notVideo + "cannot open its " + codec->name + " decoder: " + avError(rc) + ".";
        return false;
    }
    m_startTimestamp = stream->start_time != AV_NOPTS_VALUE ? stream->start_time : 0;
    if (stream->duration != AV_NOPTS_VALUE && stream->duration > 0) {
        m_durationUs = av_rescale_q(stream->duration, stream->time_base, AV_TIME_BASE_Q);
    } else if (m_format->duration != AV_NOPTS_VALUE && m_format->duration > 0) {
        m_durationUs = m_format->duration;
    }
    AVRational rate = av_guess_frame_rate(m_format, stream, nullptr);
    char fps[32] = "unknown";
    if (rate.num > 0 && rate.den > 0) {
        std::snprintf(fps, sizeof(fps), "%.2f", av_q2d(rate));
    }
    *note = "video " + path + ", " + codec->name + " " + std::to_string(stream->codecpar->width) + "x" +
            std::to_string(stream->codecpar->height) + " at " + fps + " fps, " +
            (m_durationUs > 0 ? seconds(m_durationUs / 1e6) + ", looping." : "length unknown, played on.");
    return true;
}

bool VideoReader::read(int64_t positionUs, uint8_t* rgb, std::string* note) {
    std::string error;
    if (m_durationUs <= 0) {
        // No length to wrap the play position at: the next frame, from the start again at the end.
        bool reused = false;
        if (!decodeFrame(false, &reused, &error) &&
            !(seekTo(m_startTimestamp, &error) && decodeFrame(false, &reused, &error))) {
            *note = "cannot read a frame from video " + m_path + ": " + error;
            return false;
        }
        m_haveKeyframe = false;
        if (!scaleInto(&error)) {
            *note = "cannot convert a frame of video " + m_path + ": " + error;
            return false;
        }
        std::memcpy(rgb, m_picture.data(), kPictureBytes);
        *note = "video frame, played on.";
        return true;
    }
    AVStream* stream = m_format->streams[m_stream];
    int64_t position = (positionUs < 0 ? 0 : positionUs) % m_durationUs;
    int64_t target = m_startTimestamp + av_rescale_q(position, AV_TIME_BASE_Q, stream->time_base);
    bool reused = false;
    if (!seekTo(target, &error) || !decodeFrame(true, &reused, &error)) {
        m_haveKeyframe = false;
        *note = "cannot read a frame at " + seconds(position / 1e6) + " of video " + m_path + ": " + error;
        return false;
    }
    if (!reused) {
        if (!scaleInto(&error)) {
            m_haveKeyframe = false;
            *note = "cannot convert a frame of video " + m_path + ": " + error;
            return false;
        }
        m_haveKeyframe = m_pendingKey.known;
        m_keyframe = m_pendingKey;
    }
    std::memcpy(rgb, m_picture.data(), kPictureBytes);
    *note =
        "video at " + seconds(position / 1e6) + ": " +
        (reused ? "same keyframe as before, picture kept." : "frame decoded from the keyframe before it.");
    return true;
}

bool VideoReader::seekTo(int64_t timestamp, std::string* error) {
    int rc = av_seek_frame(m_format, m_stream, timestamp, AVSEEK_FLAG_BACKWARD);
    if (rc < 0) {
        // Before the first keyframe there is nothing at or before: take the nearest one.
        rc = avformat_seek_file(m_format, m_stream, INT64_MIN, timestamp, INT64_MAX, 0);
    }
    if (rc < 0) {
        *error = "seek failed: " + avError(rc) + ".";
        return false;
    }
    avcodec_flush_buffers(m_decoder);
    return true;
}

bool VideoReader::decodeFrame(bool afterSeek, bool* reused, std::string* error) {
    bool first = afterSeek;
    int packets = 0;
    for (;;) {
        int rc = av_read_frame(m_format, m_packet);
        if (rc < 0) {
            // End of the file: whatever the decoder still holds.
            avcodec_send_packet(m_decoder, nullptr);
            if (avcodec_receive_frame(m_decoder, m_frame) == 0) {
                return true;
            }
            *error = rc == AVERROR_EOF ? std::string("no frame before the end.") : avError(rc) + ".";
            return false;
        }
        if (m_packet->stream_index != m_stream) {
            av_packet_unref(m_packet);
            continue;
        }
        if (first) {
            // The seek landed on this packet: the same one as last time decodes to the same picture.
            first = false;
            m_pendingKey.known = m_packet->pos >= 0 || m_packet->dts != AV_NOPTS_VALUE;
            m_pendingKey.position = m_packet->pos;
            m_pendingKey.dts = m_packet->dts;
            if (m_haveKeyframe && m_pendingKey.known && m_pendingKey.position == m_keyframe.position &&
                m_pendingKey.dts == m_keyframe.dts) {
                av_packet_unref(m_packet);
                *reused = true;
                return true;
            }
        }
        rc = avcodec_send_packet(m_decoder, m_packet);
        av_packet_unref(m_packet);
        // A damaged packet is skipped: the decoder resynchronises on the next ones.
        if (rc >= 0 || rc == AVERROR(EAGAIN)) {
            rc = avcodec_receive_frame(m_decoder, m_frame);
            if (rc == 0) {
                return true;
            }
            if (rc != AVERROR(EAGAIN)) {
                *error = "decoder: " + avError(rc) + ".";
                return false;
            }
        }
        if (++packets >= kMaxPacketsPerFrame) {
            *error = "no frame decoded from " + std::to_string(packets) + " packets.";
            return false;
        }
    }
}

bool VideoReader::scaleInto(std::string* error) {
    int fullRange = m_frame->color_range == AVCOL_RANGE_JPEG ? 1 : 0;
    AVPixelFormat format = plainFormat(static_cast<AVPixelFormat>(m_frame->format), &fullRange);
    // Straight from the decoded frame to the target size and layout, in one pass.
    m_scaler = sws_getCachedContext(m_scaler, m_frame->width, m_frame->height, format, kWidth, kHeight,
                                    AV_PIX_FMT_RGB24, SWS_AREA, nullptr, nullptr, nullptr);
    if (m_scaler == nullptr) {
        const char* name = av_get_pix_fmt_name(format);
        *error = std::string("no conversion from ") + (name != nullptr ? name : "unknown pixel format") +
                 " " + std::to_string(m_frame->width) + "x" + std::to_string(m_frame->height) + ".";
        return false;
    }
    if (m_scaler != m_tunedScaler || fullRange != m_tunedRange || m_frame->colorspace != m_tunedSpace) {
        // Matrix and range as the stream declares them; the scaler's defaults suit only SD video.
        sws_setColorspaceDetails(m_scaler, sws_getCoefficients(m_frame->colorspace), fullRange,
                                 sws_getCoefficients(SWS_CS_DEFAULT), 1, 0, 1 << 16, 1 << 16);
        m_tunedScaler = m_scaler;
        m_tunedRange = fullRange;
        m_tunedSpace = m_frame->colorspace;
    }
    m_picture.resize(kPictureBytes);
    uint8_t* planes[4] = {m_picture.data(), nullptr, nullptr, nullptr};
    int strides[4] = {kWidth * 3, 0, 0, 0};
    if (sws_scale(m_scaler, m_frame->data, m_frame->linesize, 0, m_frame->height, planes, strides) !=
        kHeight) {
        *error = "scaling failed.";
        return false;
    }
    return true;
}

}  // namespace capture_files
