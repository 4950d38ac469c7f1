#pragma once

/**
 * @file h264_reader.h
 * Minimal readers for H.264 Annex B byte streams: `H264Reader` cuts a stream
 * into NAL units, `H264NaluReader` reads bits, Exp-Golomb values and the few
 * sequence parameter set fields a stream's size needs.
 *
 * Both are deliberately small: no emulation-prevention removal, no cropping,
 * no scaling-list parsing. `Tevara::Lumiflux::VideoStreamParser` does those
 * properly. The classes live at global scope.
 *
 * Neither class is thread-safe; an object is used by one thread at a time.
 */

#include <cstdint>
#include <string>
#include <utility>

#include <lumiflux/export.h>

/**
 * Cuts an Annex B byte stream into NAL units by searching for start codes
 * (00 00 01 or 00 00 00 01). The data is the caller's: it is neither owned
 * nor copied and must stay valid while the reader uses it.
 */
class LUMIFLUX_EXPORT H264Reader {
public:
    /** The reader's error state; set by readNalUnit() or throwError(). */
    enum Error { NoError = 0, FormatError = 1, EmptyError = 2 };

    /** No data, readOffset() -1, currentNaluOffset() 0, error NoError. */
    H264Reader();

    /**
     * Points the reader at `data` (`size` bytes). Resets readOffset() to -1
     * and currentNaluOffset() to 0. Neither the error nor the zero counter is
     * reset: zeros at the end of one chunk count towards a start code that
     * completes in the next chunk.
     */
    void setData(const unsigned char* data, unsigned long size);

    /**
     * The next NAL unit: (offset of its start code, distance to the next
     * start code), so the length includes the unit's own start code and the
     * last unit runs to the end of the data. On the first call the data must
     * begin with a start code unless `allowLeadingBytes` is true (then the
     * unit starts at the first start code). Returns offset (unsigned long)-1
     * with error() EmptyError when there is no data, FormatError when the
     * data does not begin with a start code. After the last unit it returns
     * (size, 0).
     */
    std::pair<unsigned long, unsigned long> readNalUnit(bool allowLeadingBytes = false);

    /**
     * Scans from readOffset() (from 0 before the first read) for the next
     * start code. Returns the offset of its first zero byte and leaves
     * readOffset() just past its 0x01 byte; returns the data size (and sets
     * readOffset() to it) when none is left.
     *
     * A fourth consecutive zero byte wraps the zero counter to 0, so five
     * zeros followed by 0x01 is not a start code. When a start code began in
     * the previous chunk (see setData()), the returned offset is "negative",
     * i.e. wraps modulo 2^64.
     */
    unsigned long findNextNaluOffset();

    /** Offset of the start code of the NAL unit found last. */
    std::uint64_t currentNaluOffset() const { return naluOffset; }
    /** Scan position; -1 before the first read. */
    std::int64_t readOffset() const { return scanOffset; }
    /** Size of the last start code found: 3 or 4 (0 before any). */
    int startCodeSize() const { return codeSize; }
    /** The current error. */
    Error error() const { return currentError; }
    /** The name of `error`: "NoError", "FormatError" or "EmptyError"; "" for other values. */
    const std::string& errorName(Error error) const;
    /** Sets the current error. Despite its name it throws nothing. */
    void throwError(Error error) { currentError = error; }

private:
    const unsigned char* data = nullptr;
    unsigned long dataSize = 0;
    std::int64_t scanOffset = -1;
    std::uint64_t naluOffset = 0;
    Error currentError = NoError;
    int zeroCount = 0;
    int codeSize = 0;
    std::string errorNames[3];
};

/**
 * Reads one NAL unit bit by bit, as the bits stand in the stream (no
 * emulation-prevention removal). Every read is bounded by the unit's end: a
 * read past it yields zero bits and marks the reader overrun().
 */
class LUMIFLUX_EXPORT H264NaluReader {
public:
    /**
     * `unit` points at a start code followed by the unit, `size` bytes in
     * all (as H264Reader::readNalUnit() gives them). A unit without a 3- or
     * 4-byte start code is logged as "Invalid NAL Unit" and leaves the reader
     * without data (every read then yields zero and overruns).
     */
    H264NaluReader(unsigned char* unit, unsigned long size);

    /** The NAL unit type: low five bits of the header byte; 0 without data. */
    unsigned int naluType() const;

    /** Bit `n` counted from the most significant bit of the header byte; 0 past the end. */
    unsigned int getBit(unsigned int n) const;

    /**
     * The next `n` bits, most significant first (at most the last 32 are
     * kept); n below 1 yields 0 and reads nothing. Bits past the end read as
     * zero and mark the reader overrun.
     */
    unsigned int readUnsigned(int n);

    /**
     * An unsigned Exp-Golomb value. Values beyond 32 bits, and a code that
     * runs past the end of the unit, mark the reader overrun and yield
     * 0xFFFFFFFF and 0 respectively.
     */
    unsigned int readGolomb();

    /**
     * Reads the sequence parameter set fields from the current position
     * (just past the header byte for a fresh reader): profile_idc, level_idc
     * and the coded size in whole macroblocks, height doubled for field
     * coding. Not applied: cropping (a 1080-line stream reports 1088),
     * emulation-prevention removal, scaling lists (present lists give wrong
     * sizes) and the chroma fields of high profiles 128 and above other
     * than 244. Returns false, with outputs unspecified, when a read ran past
     * the unit's end or the size does not fit an int.
     */
    bool parseSPS(int& width, int& height, int& level, int& profile);

    /** Length of the unit without its start code (0 without data). */
    unsigned long size() const { return length; }
    /** Bits consumed from the header byte on; starts at 8. */
    std::uint32_t bitPosition() const { return position; }
    /** True once a read went past the end of the unit. */
    bool overrun() const { return overran; }

private:
    unsigned int bitAt(std::uint64_t index) const;

    const unsigned char* unitData = nullptr;
    unsigned long length = 0;
    std::uint32_t position = 8;
    bool overran = false;
};
