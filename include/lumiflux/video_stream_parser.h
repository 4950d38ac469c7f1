#pragma once

/**
 * @file video_stream_parser.h
 * Parses an H.264 Annex B elementary stream, from memory or from a file, into
 * access units and a description of the video (`VideoStreamMetadata`).
 *
 * Unlike the minimal `H264NaluReader`, the parser removes emulation-prevention
 * bytes, skips scaling lists, applies the frame cropping, reads the VUI and
 * rejects out-of-range parameter set fields.
 */

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <lumiflux/export.h>

namespace Tevara::Lumiflux {

/** One access unit: a primary coded picture with the NAL units that lead it (delimiter, parameter sets, SEI). */
struct VideoAccessUnit {
    std::uint64_t offset = 0;           ///< offset of the start code of its first NAL unit
    std::uint64_t size = 0;             ///< bytes up to the start code of the next access unit
    std::vector<std::uint8_t> nalTypes; ///< nal_unit_type of each NAL unit, in stream order
    bool idr = false;                   ///< holds an IDR slice
    bool recoveryPoint = false;         ///< holds a recovery point SEI message
    bool keyFrame = false;              ///< decoding can start here: an IDR or a recovery point
};

/** How a VideoStreamParser reads. */
struct VideoStreamParserSettings {
    /** Accept bytes before the first start code (they are skipped); otherwise they are an error. */
    bool allowLeadingBytes = false;
    /** Keep the list of access units; when false only their counts are kept. */
    bool keepAccessUnits = true;
    /** Count a recovery point SEI as a key frame (an IDR always is). */
    bool recoveryPointIsKeyFrame = true;
};

/**
 * What a stream says about its video, taken from the sequence parameter set
 * that the first picture uses (the first one in the stream when no picture
 * refers to one). A value: copying copies the description.
 */
class LUMIFLUX_EXPORT VideoStreamMetadata {
public:
    /** An empty description: isValid() false, every number 0. */
    VideoStreamMetadata();
    /** Copies another description. */
    VideoStreamMetadata(const VideoStreamMetadata& other);
    /** Copies another description. */
    VideoStreamMetadata& operator=(const VideoStreamMetadata& other);
    /** Takes over another description, which is left empty. */
    VideoStreamMetadata(VideoStreamMetadata&& other) noexcept;
    /** Takes over another description, which is left empty. */
    VideoStreamMetadata& operator=(VideoStreamMetadata&& other) noexcept;
    ~VideoStreamMetadata();

    /** True when a sequence parameter set was found and accepted. */
    bool isValid() const;
    /** The codec: "h264", or "" when not valid. */
    std::string codecName() const;
    /** profile_idc (66 baseline, 77 main, 100 high, 122 high 4:2:2, 244 high 4:4:4, ...). */
    int profile() const;
    /** level_idc: ten times the level (31 for level 3.1). */
    int level() const;
    /** The constraint_set flags byte of the SPS. */
    int constraintFlags() const;
    /** Coded size in whole macroblocks, height doubled for field coding (1920x1088 for 1080p). */
    int codedWidth() const;
    int codedHeight() const; ///< coded height in pixels (see codedWidth())
    /** Size after the frame cropping (1920x1080 for 1080p). */
    int displayWidth() const;
    int displayHeight() const; ///< display height in pixels (see displayWidth())
    /** Pixels cropped at each edge. */
    int cropLeft() const;
    int cropRight() const;  ///< pixels cropped at the right edge
    int cropTop() const;    ///< pixels cropped at the top edge
    int cropBottom() const; ///< pixels cropped at the bottom edge
    /** Sample aspect ratio from the VUI; 0/0 when absent or unspecified. */
    int sarWidth() const;
    int sarHeight() const; ///< vertical part of the sample aspect ratio (see sarWidth())
    /**
     * Frame rate from the VUI timing information (time_scale / (2 x
     * num_units_in_tick)), reduced; 0/0 when absent.
     */
    int frameRateNumerator() const;
    int frameRateDenominator() const; ///< see frameRateNumerator()
    /** The frame rate as a number; 0 when absent. */
    double frameRate() const;
    /** Bit depths of luma and chroma samples (8 to 14). */
    int bitDepthLuma() const;
    int bitDepthChroma() const; ///< bit depth of chroma samples (see bitDepthLuma())
    /** chroma_format_idc: 0 monochrome, 1 4:2:0, 2 4:2:2, 3 4:4:4. */
    int chromaFormat() const;
    /** False when pictures may be field coded (frame_mbs_only_flag 0). */
    bool frameMbsOnly() const;
    /** Access units and key frames in the stream. */
    std::uint64_t accessUnitCount() const;
    /** Access units with an IDR picture (or a recovery point, when the settings count those as key frames). */
    std::uint64_t keyFrameCount() const;

private:
    friend class VideoStreamParser;
    struct Impl;
    std::unique_ptr<Impl> impl;
};

/**
 * Parses one H.264 Annex B stream at a time. Not thread-safe: one thread uses
 * an object at a time; separate objects are independent.
 */
class LUMIFLUX_EXPORT VideoStreamParser {
public:
    /** A parser that keeps what `settings` asks for. */
    explicit VideoStreamParser(const VideoStreamParserSettings& settings = VideoStreamParserSettings());
    ~VideoStreamParser();
    VideoStreamParser(const VideoStreamParser&) = delete;
    VideoStreamParser& operator=(const VideoStreamParser&) = delete;

    /**
     * Parses `size` bytes at `data` (read only during the call). Returns false
     * with errorMessage() set when the data is empty or null, does not begin
     * with a start code (unless leading bytes are allowed), holds no sequence
     * parameter set, or holds a parameter set or slice header with
     * out-of-range or truncated fields. What was read before the error stays
     * available.
     */
    bool parse(const std::uint8_t* data, std::size_t size);

    /** Parses the whole file at `path`; false with errorMessage() when it cannot be read or parse() fails. */
    bool parseFile(const std::string& path);

    /** The description from the last parse. */
    const VideoStreamMetadata& metadata() const;
    /** The access units of the last parse (empty unless the settings keep them). */
    const std::vector<VideoAccessUnit>& accessUnits() const;
    /** How many NAL units of each type (index 0..31) the last parse saw. */
    const std::vector<std::uint64_t>& nalUnitCounts() const;
    /** Why the last parse failed; empty after success. */
    const std::string& errorMessage() const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl;
};

} // namespace Tevara::Lumiflux
