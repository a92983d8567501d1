#include "avi_check.h"

#include <array>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace avi {
namespace {

constexpr size_t MaxFindings = 200;
constexpr size_t MaxChunks = size_t{1} << 22; // what a report lists; bounds its memory for hostile files
constexpr uint32_t VideoHeaderArea = 212;
constexpr uint32_t AudioHeaderArea = 316;
constexpr uint64_t SizeLimit = uint64_t{1} << 32;

constexpr uint32_t fcc(const char (&text)[5])
{
    return uint32_t{uint8_t(text[0])} | uint32_t{uint8_t(text[1])} << 8 | uint32_t{uint8_t(text[2])} << 16 |
           uint32_t{uint8_t(text[3])} << 24;
}

uint32_t load(const uint8_t* at, size_t size)
{
    uint32_t value = 0;
    while (size--) value = value << 8 | at[size];
    return value;
}

// ---------------------------------------------------------------------------------------------- the file

struct File
{
    int fd = -1;
    uint64_t length = 0;

    explicit File(const std::string& path) : fd(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC))
    {
        struct stat status;
        if (fd < 0) return;
        if (fstat(fd, &status) == 0 && S_ISREG(status.st_mode)) {
            length = uint64_t(status.st_size);
            return;
        }
        close(fd);
        fd = -1;
        errno = EINVAL;
    }
    ~File()
    {
        if (fd >= 0) close(fd);
    }
    File(const File&) = delete;
    File& operator=(const File&) = delete;
};

// Bytes read at an offset; fewer than asked for at the end of the file or after an error.
size_t read_at(const File& file, uint64_t offset, uint8_t* to, size_t count)
{
    size_t done = 0;
    while (done < count) {
        const ssize_t got = pread(file.fd, to + done, count - done, off_t(offset + done));
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) break;
        done += size_t(got);
    }
    return done;
}

// Small forward reads without a system call each.
struct Window
{
    const File& file;
    std::array<uint8_t, 4096> bytes{};
    uint64_t begin = 0;
    size_t held = 0;

    explicit Window(const File& of) : file(of) {}
};

// `count` bytes at that offset, NULL when the file does not hold them. Valid until the next call.
const uint8_t* look(Window& window, uint64_t offset, size_t count)
{
    if (offset > window.file.length || window.file.length - offset < count) return nullptr;
    if (offset < window.begin || offset - window.begin + count > window.held) {
        window.begin = offset - offset % 64; // a pad byte and the header behind it in one read
        window.held = read_at(window.file, window.begin, window.bytes.data(), window.bytes.size());
    }
    const uint64_t skip = offset - window.begin;
    return window.held >= skip + count ? &window.bytes[skip] : nullptr;
}

// 0 for bytes that cannot be read.
uint32_t look_word(Window& window, uint64_t offset)
{
    const uint8_t* bytes = look(window, offset, 4);
    return bytes ? load(bytes, 4) : 0;
}

// -------------------------------------------------------------------------------------------- the findings

template <typename... Values>
void find(Report& report, uint64_t offset, const char* format, Values... values)
{
    if (report.findings.size() > MaxFindings) return;
    if (report.findings.size() == MaxFindings) format = "further findings are left out";
    char text[200];
    if constexpr (sizeof...(values) == 0)
        snprintf(text, sizeof(text), "%s", format);
    else
        snprintf(text, sizeof(text), format, values...);
    report.findings.push_back({offset, text});
}

std::string id_text(uint32_t id)
{
    std::string text;
    for (int i = 0; i < 4; ++i) {
        const char c = char(id >> 8 * i & 0xFF);
        if (c >= ' ' && c <= '~') {
            text += c;
            continue;
        }
        char hex[5];
        snprintf(hex, sizeof(hex), "\\x%02X", unsigned(uint8_t(c)));
        text += hex;
    }
    return text;
}

// ----------------------------------------------------------------------------------------- the header area

struct Field
{
    uint16_t offset;
    uint8_t size;
    uint32_t value;
    const char* name;
};

constexpr Field VideoFields[] = {
    {0, 4, fcc("RIFF"), "RIFF"},
    {8, 4, fcc("AVI "), "AVI"},
    {12, 4, fcc("LIST"), "LIST of hdrl"},
    {20, 4, fcc("hdrl"), "hdrl"},
    {24, 4, fcc("avih"), "avih"},
    {28, 4, 56, "avih size"},
    {32, 4, 40000, "dwMicroSecPerFrame"},
    {40, 4, 0, "dwPaddingGranularity"},
    {52, 4, 0, "dwInitialFrames"},
    {72, 4, 0, "dwReserved"},
    {76, 4, 0, "dwReserved"},
    {80, 4, 0, "dwReserved"},
    {84, 4, 0, "dwReserved"},
    {88, 4, fcc("LIST"), "LIST of the video strl"},
    {92, 4, 116, "size of the video strl list"},
    {96, 4, fcc("strl"), "video strl"},
    {100, 4, fcc("strh"), "video strh"},
    {104, 4, 56, "video strh size"},
    {108, 4, fcc("vids"), "video fccType"},
    {112, 4, fcc("H264"), "video fccHandler"},
    {116, 4, 0, "video dwFlags"},
    {120, 2, 0, "video wPriority"},
    {122, 2, 0, "video wLanguage"},
    {124, 4, 0, "video dwInitialFrames"},
    {128, 4, 1, "video dwScale"},
    {136, 4, 0, "video dwStart"},
    {148, 4, 0xFFFFFFFF, "video dwQuality"},
    {152, 4, 0, "video dwSampleSize"},
    {156, 2, 0, "rcFrame.left"},
    {158, 2, 0, "rcFrame.top"},
    {164, 4, fcc("strf"), "video strf"},
    {168, 4, 40, "video strf size"},
    {172, 4, 40, "biSize"},
    {184, 2, 1, "biPlanes"},
    {186, 2, 0, "biBitCount"},
    {188, 4, fcc("H264"), "biCompression"},
    {196, 4, 0, "biXPelsPerMeter"},
    {200, 4, 0, "biYPelsPerMeter"},
    {204, 4, 0, "biClrUsed"},
    {208, 4, 0, "biClrImportant"},
};

constexpr Field AudioFields[] = {
    {212, 4, fcc("LIST"), "LIST of the audio strl"},
    {216, 4, 96, "size of the audio strl list"},
    {220, 4, fcc("strl"), "audio strl"},
    {224, 4, fcc("strh"), "audio strh"},
    {228, 4, 56, "audio strh size"},
    {232, 4, fcc("auds"), "audio fccType"},
    {244, 2, 0, "audio wPriority"},
    {246, 2, 0, "audio wLanguage"},
    {248, 4, 0, "audio dwInitialFrames"},
    {260, 4, 0, "audio dwStart"},
    {272, 4, 0xFFFFFFFF, "audio dwQuality"},
    {280, 4, 0, "audio rcFrame"},
    {284, 4, 0, "audio rcFrame"},
    {288, 4, fcc("strf"), "audio strf"},
    {292, 4, 20, "audio strf size"},
};

constexpr Field G711Fields[] = {
    {236, 4, 1, "audio fccHandler"},    {240, 4, 0, "audio dwFlags"},
    {252, 4, 1, "audio dwScale"},       {268, 4, 16000, "audio dwSuggestedBufferSize"},
    {276, 4, 1, "audio dwSampleSize"},  {308, 2, 1, "nBlockAlign"},
    {310, 2, 8, "wBitsPerSample"},      {312, 2, 0, "cbSize"},
    {314, 2, 0, "codec data of G.711"},
};

constexpr Field AacFields[] = {
    {236, 4, 0, "audio fccHandler"},   {240, 4, 1, "audio dwFlags"},
    {252, 4, 1024, "audio dwScale"},   {268, 4, 8192, "audio dwSuggestedBufferSize"},
    {276, 4, 0, "audio dwSampleSize"}, {298, 2, 2, "nChannels"},
    {304, 4, 1956, "nAvgBytesPerSec"}, {308, 2, 4096, "nBlockAlign"},
    {310, 2, 0, "wBitsPerSample"},     {312, 2, 2, "cbSize"},
};

using Header = std::array<uint8_t, AudioHeaderArea>;

void expect(Report& report, const Header& header, const Field& field)
{
    const uint32_t value = load(&header[field.offset], field.size);
    if (value == field.value) return;
    find(report, field.offset, "%s is %" PRIu32 " (0x%" PRIx32 "), not %" PRIu32 " (0x%" PRIx32 ")",
         field.name, value, value, field.value, field.value);
}

template <size_t Count>
void expect_all(Report& report, const Header& header, const Field (&fields)[Count])
{
    for (const Field& field : fields) expect(report, header, field);
}

void check_video_header(Report& report, const Header& header, bool withAudio)
{
    expect_all(report, header, VideoFields);
    expect(report, header, {16, 4, withAudio ? 296u : 192u, "size of the hdrl list"});
    expect(report, header, {44, 4, withAudio ? 0x910u : 0x810u, "flags"});
    expect(report, header, {56, 4, withAudio ? 2u : 1u, "dwStreams"});

    report.width = load(&header[64], 4);
    report.height = load(&header[68], 4);
    report.rate = load(&header[132], 4);
    report.videoLength = load(&header[140], 4);
    expect(report, header, {160, 2, report.width & 0xFFFF, "rcFrame.right"});
    expect(report, header, {162, 2, report.height & 0xFFFF, "rcFrame.bottom"});
    expect(report, header, {176, 4, report.width, "biWidth"});
    expect(report, header, {180, 4, report.height, "biHeight"});
    expect(report, header, {192, 4, report.width * report.height * 3, "biSizeImage"});
    if (report.rate > 30) find(report, 132, "video dwRate is %" PRIu32 ", above 30", report.rate);
}

// The two bytes that tell a decoder: AAC LC at this rate, stereo.
uint32_t aac_config(uint32_t rate)
{
    switch (rate) {
    case 48000:
        return 0x9011;
    case 32000:
        return 0x9012;
    case 16000:
        return 0x1014;
    default:
        return 0x9015;
    }
}

void check_audio_header(Report& report, const Header& header)
{
    Audio& audio = report.audio;
    audio.present = true;
    audio.formatTag = uint16_t(load(&header[296], 2));
    audio.channels = uint16_t(load(&header[298], 2));
    audio.sampleRate = load(&header[300], 4);
    audio.length = load(&header[264], 4);
    audio.config.assign(&header[314], &header[314] + 2);

    expect_all(report, header, AudioFields);
    expect(report, header, {256, 4, audio.sampleRate, "audio dwRate"});
    expect(report, header, {36, 4, 5 * audio.sampleRate, "dwMaxBytesPerSec"});
    if (audio.formatTag == 0xFF) {
        expect_all(report, header, AacFields);
        expect(report, header, {314, 2, aac_config(audio.sampleRate), "codec data of AAC"});
        return;
    }
    if (audio.formatTag != 6 && audio.formatTag != 7)
        find(report, 296, "wFormatTag is %u, not 6, 7 or 255", unsigned(audio.formatTag));
    expect_all(report, header, G711Fields);
    expect(report, header, {304, 4, audio.sampleRate, "nAvgBytesPerSec"});
    if (audio.channels > 255) find(report, 298, "nChannels is %u, above 255", unsigned(audio.channels));
}

// ---------------------------------------------------------------------------- the movi list and the index

struct Movi
{
    uint64_t base = 0;  // of the "movi" FourCC
    uint64_t end = 0;   // behind the last chunk
    bool whole = false; // every chunk was found, so that counts mean something
    uint32_t video = 0, audio = 0, largest = 0;
    uint32_t effort = 1 << 20;        // index entries still to be tried in repairs
    uint64_t unindexed = 0, from = 0; // chunks behind the index's last entry; the first of them
};

struct Index
{
    uint64_t begin = 0; // of the first entry
    uint64_t count = 0;
};

struct Entry
{
    uint32_t id, flags, offset, size;
};

struct Head
{
    uint32_t id, size;
    uint64_t end; // of the chunk with its pad byte
};

bool is_stream(uint32_t id)
{
    return id == fcc("00dc") || id == fcc("01wb");
}

bool read_head(Window& window, uint64_t at, Head& head)
{
    const uint8_t* bytes = look(window, at, 8);
    if (!bytes) return false;
    head.id = load(bytes, 4);
    head.size = load(bytes + 4, 4);
    head.end = at + 8 + head.size + (head.size & 1);
    return true;
}

bool read_entry(Window& window, const Index& index, uint64_t number, Entry& entry)
{
    if (number >= index.count) return false;
    const uint8_t* bytes = look(window, index.begin + 16 * number, 16);
    if (!bytes) return false;
    entry = {load(bytes, 4), load(bytes + 4, 4), load(bytes + 8, 4), load(bytes + 12, 4)};
    return true;
}

// Does a chunk end here: at the list's end, or where a further chunk begins?
bool is_border(Window& window, const Movi& movi, uint64_t at)
{
    Head head;
    return at == movi.end || (at < movi.end && read_head(window, at, head) && is_stream(head.id));
}

// The list says where it ends. When no index is there, the chunks themselves tell.
bool find_movi_end(Report& report, Window& window, uint32_t area, Movi& movi)
{
    const uint32_t size = look_word(window, area + 4);
    const uint64_t length = window.file.length;
    Head head{};
    movi.base = area + 8;
    movi.end = movi.base + size;
    if (size >= 4 && read_head(window, movi.end, head) && head.id == fcc("idx1")) return true;

    uint64_t at = movi.base + 4;
    bool more = false;
    while ((more = read_head(window, at, head)) && is_stream(head.id)) at = head.end;
    if (more && head.id == fcc("idx1")) {
        find(report, area + 4, "the movi list ends at %" PRIu64 ", its chunks end at %" PRIu64, movi.end, at);
        movi.end = at;
        return true;
    }
    if (size < 4 || movi.end > length) {
        find(report, area + 4, "the movi list's size is %" PRIu32 ", the file ends at %" PRIu64, size,
             length);
        movi.end = length;
    }
    find(report, movi.end, "no idx1 behind the movi list");
    return false;
}

Index check_index_header(Report& report, Window& window, uint64_t at, bool riffSizeHolds)
{
    const uint32_t size = look_word(window, at + 4);
    const uint64_t rest = window.file.length - at - 8;
    if (size != rest)
        find(report, at + 4, "the idx1 size is %" PRIu32 ", but %" PRIu64 " bytes follow", size, rest);
    else if (size % 16)
        find(report, at + 4, "the idx1 size %" PRIu32 " is no multiple of 16", size);
    return {at + 8, (riffSizeHolds || size > rest ? rest : size) / 16};
}

void compare(Report& report, uint64_t at, uint64_t entryAt, const Head& head, const Entry& entry)
{
    if (entry.id != head.id)
        find(report, entryAt, "index id %s for a chunk %s", id_text(entry.id).c_str(),
             id_text(head.id).c_str());
    if (entry.size != head.size)
        find(report, entryAt + 12, "index size %" PRIu32 ", but the chunk at %" PRIu64 " has %" PRIu32,
             entry.size, at, head.size);
    if (entry.flags != 0x10 && (entry.flags != 0 || head.id == fcc("01wb")))
        find(report, entryAt + 4, "index flags 0x%" PRIx32 " for a chunk %s", entry.flags,
             id_text(head.id).c_str());
}

// The entry of the chunk at `at`, if it has one. `number` moves behind the entries that are used up.
bool take_entry(Report& report, Window& window, Movi& movi, const Index& index, uint64_t at, uint64_t next,
                uint64_t& number, Entry& entry)
{
    const uint64_t offset = at - movi.base;
    for (; read_entry(window, index, number, entry); ++number) {
        const uint64_t entryAt = index.begin + 16 * number;
        if (entry.offset == offset) {
            ++number;
            return true;
        }
        Entry following;
        const bool more = read_entry(window, index, number + 1, following);
        if (more ? following.offset == next - movi.base : next == movi.end && number + 1 == index.count) {
            find(report, entryAt + 8, "index offset %" PRIu32 ", but the chunk is at %" PRIu64, entry.offset,
                 offset);
            ++number;
            return true;
        }
        if (entry.offset > offset) break;
        find(report, entryAt + 8, "index offset %" PRIu32 " points to no chunk", entry.offset);
    }
    if (number < index.count)
        find(report, at, "the chunk has no index entry");
    else if (!movi.unindexed++)
        movi.from = at;
    return false;
}

// A header that cannot be believed. The index may know what lies here, or where the next chunk is.
bool repair(Window& chunks, Window& entries, Movi& movi, const Index& index, uint64_t number, uint64_t at,
            Head& head, uint64_t& skipTo)
{
    Entry entry;
    for (; movi.effort && read_entry(entries, index, number, entry); ++number) {
        --movi.effort;
        const uint64_t target = movi.base + entry.offset;
        const uint64_t end = target + 8 + entry.size + (entry.size & 1);
        if (target < at || end > movi.end || !is_stream(entry.id)) continue;
        if (!is_border(chunks, movi, end)) continue;
        if (target > at) {
            skipTo = target;
            return false;
        }
        head = {entry.id, entry.size, end};
        return true;
    }
    skipTo = movi.end;
    return false;
}

void keep(Report& report, Movi& movi, uint64_t at, const Head& head, bool key)
{
    (head.id == fcc("00dc") ? movi.video : movi.audio) += 1;
    if (head.id == fcc("00dc") && head.size > movi.largest) movi.largest = head.size;
    if (report.chunks.size() < MaxChunks)
        report.chunks.push_back({head.id == fcc("00dc") ? "00dc" : "01wb", at, head.size, key});
    else if (report.chunks.size() == size_t{movi.video} + movi.audio - 1)
        find(report, at, "more than %zu chunks; further ones are not listed", MaxChunks);
}

// Chunk by chunk, each beside its index entry.
void check_chunks(Report& report, Window& chunks, Window& entries, Movi& movi, const Index& index)
{
    uint64_t number = 0, at = movi.base + 4;
    movi.whole = true;
    while (at < movi.end) {
        Head head{};
        Entry entry{};
        uint64_t skipTo = 0;
        const bool readable = read_head(chunks, at, head) && at + 8 <= movi.end;
        if (!readable || !is_stream(head.id) || head.end > movi.end) {
            if (!readable)
                find(report, at, "%" PRIu64 " stray bytes at the end of the movi list", movi.end - at);
            else if (!is_stream(head.id))
                find(report, at, "unknown chunk id %s", id_text(head.id).c_str());
            else
                find(report, at + 4, "the chunk's size %" PRIu32 " passes the end of the movi list",
                     head.size);
            if (!repair(chunks, entries, movi, index, number, at, head, skipTo)) {
                movi.whole = false;
                at = skipTo;
                continue;
            }
        } else if (!is_border(chunks, movi, head.end)) {
            const Head said = head;
            if (repair(chunks, entries, movi, index, number, at, head, skipTo) && head.size != said.size)
                find(report, at + 4,
                     "the chunk's size is %" PRIu32 ", but the next one is %" PRIu32 " bytes on", said.size,
                     head.size);
            else
                head = said;
        }
        if (report.audio.present == false && head.id == fcc("01wb"))
            find(report, at, "an audio chunk, but no audio stream");
        const uint8_t* pad = head.size & 1 ? look(chunks, head.end - 1, 1) : nullptr;
        if (head.size & 1 && (!pad || *pad != 0x30)) find(report, head.end - 1, "the pad byte is not 0x30");
        bool known = take_entry(report, entries, movi, index, at, head.end, number, entry);
        if (known) compare(report, at, index.begin + 16 * (number - 1), head, entry);
        keep(report, movi, at, head, known && (entry.flags & 0x10));
        at = head.end;
    }
    if (movi.unindexed && index.begin)
        find(report, movi.from, "%" PRIu64 " chunks from here on have no index entry", movi.unindexed);
    if (number < index.count)
        find(report, index.begin + 16 * number, "%" PRIu64 " index entries behind the last chunk's",
             index.count - number);
}

void check_counts(Report& report, const Header& header, const Movi& movi)
{
    if (!movi.whole) return;
    const Audio& audio = report.audio;
    expect(report, header, {48, 4, movi.video, "dwTotalFrames"});
    expect(report, header, {140, 4, movi.video, "video dwLength"});
    expect(report, header, {60, 4, movi.largest + 20480, "dwSuggestedBufferSize"});
    expect(report, header, {144, 4, movi.largest + 20480, "video dwSuggestedBufferSize"});
    if (audio.present)
        expect(report, header, {264, 4, movi.audio * (audio.formatTag == 0xFF ? 1 : 320), "audio dwLength"});
    if (!movi.video && !movi.audio) find(report, movi.base, "the movi list is empty");
}

void check_body(Report& report, const File& file, const Header& header, uint32_t area, bool riffSizeHolds)
{
    Window chunks(file), entries(file);
    const uint8_t* list = look(chunks, area, 12);
    if (!list) return find(report, area, "no room for a movi list");
    if (load(list, 4) != fcc("LIST")) find(report, area, "LIST of movi is missing");
    if (load(list + 8, 4) != fcc("movi")) find(report, area + 8, "movi is missing");

    Movi movi;
    Index index;
    if (find_movi_end(report, chunks, area, movi))
        index = check_index_header(report, entries, movi.end, riffSizeHolds);
    report.moviOffset = movi.base;
    check_chunks(report, chunks, entries, movi, index);
    check_counts(report, header, movi);
}

// The audio stream's header lies where a file without one has its movi list.
bool has_audio_header(const Header& header, const File& file)
{
    if (load(&header[220], 4) == fcc("movi")) return false;
    if (load(&header[220], 4) == fcc("strl") || load(&header[232], 4) == fcc("auds")) return true;
    uint8_t movi[4];
    if (read_at(file, AudioHeaderArea + 8, movi, 4) == 4 && load(movi, 4) == fcc("movi")) return true;
    return load(&header[56], 4) == 2;
}

bool is_avi(Report& report, const Header& header, uint64_t length)
{
    if (length < VideoHeaderArea)
        find(report, length, "the file ends inside the headers");
    else if (load(&header[0], 4) != fcc("RIFF") && load(&header[8], 4) != fcc("AVI "))
        find(report, 0, "no AVI file");
    else
        return true;
    return false;
}

} // namespace

Report check_file(const std::string& path)
{
    Report report;
    const File file(path);
    if (file.fd < 0) {
        find(report, 0, "the file cannot be read: %s", strerror(errno));
        return report;
    }
    Header header{};
    read_at(file, 0, header.data(), header.size());
    if (!is_avi(report, header, file.length)) return report;

    const bool withAudio = has_audio_header(header, file);
    const uint32_t area = withAudio ? AudioHeaderArea : VideoHeaderArea;
    const uint32_t riffSize = load(&header[4], 4);
    if (file.length >= SizeLimit) find(report, SizeLimit, "the file is longer than a RIFF file can be");
    check_video_header(report, header, withAudio);
    if (withAudio && file.length >= area) check_audio_header(report, header);
    if (file.length == area && riffSize == 0) {
        find(report, 4, "no frames were recorded");
        return report;
    }
    if (riffSize != file.length - 8)
        find(report, 4, "the RIFF size is %" PRIu32 ", the file has %" PRIu64 " bytes behind it", riffSize,
             file.length - 8);
    check_body(report, file, header, area, riffSize == file.length - 8);
    return report;
}

std::string describe(const Report& report)
{
    std::string text;
    for (const Finding& finding : report.findings) {
        char place[40];
        snprintf(place, sizeof(place), "offset %" PRIu64 ": ", finding.offset);
        text += place + finding.what + "\n";
    }
    return text;
}

std::vector<uint8_t> chunk_bytes(const std::string& path, const Chunk& chunk)
{
    const File file(path);
    if (file.fd < 0 || chunk.offset > file.length || file.length - chunk.offset < 8) return {};
    const uint64_t rest = file.length - chunk.offset - 8;
    std::vector<uint8_t> bytes(size_t(chunk.size < rest ? chunk.size : rest));
    bytes.resize(read_at(file, chunk.offset + 8, bytes.data(), bytes.size()));
    return bytes;
}

std::vector<uint8_t> stream_bytes(const std::string& path, const Report& report, const std::string& id)
{
    std::vector<uint8_t> all;
    for (const Chunk& chunk : report.chunks) {
        if (chunk.id != id) continue;
        const std::vector<uint8_t> bytes = chunk_bytes(path, chunk);
        all.insert(all.end(), bytes.begin(), bytes.end());
    }
    return all;
}

} // namespace avi
