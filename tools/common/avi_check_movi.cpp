// The movi list and the index.
#include "avi_check_parts.h"

#include "annexb.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>

namespace avi {

namespace cause = cli::cause;

namespace {

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

struct Movi
{
    uint64_t base = 0; // of the "movi" FourCC
    uint64_t end = 0;  // behind the last chunk
    Counts counts;
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
        find(report, cause::WrongSize, area + 4,
             "the movi list ends at %" PRIu64 ", its chunks end at %" PRIu64, movi.end, at);
        movi.end = at;
        return true;
    }
    if (size < 4 || movi.end > length) {
        find(report, cause::WrongSize, area + 4,
             "the movi list's size is %" PRIu32 ", the file ends at %" PRIu64, size, length);
        movi.end = length;
    }
    find(report, cause::NoIndex, movi.end, "no idx1 behind the movi list");
    return false;
}

Index check_index_header(Report& report, Window& window, uint64_t at, bool riffSizeHolds)
{
    const uint32_t size = look_word(window, at + 4);
    const uint64_t rest = window.file.length - at - 8;
    if (size != rest)
        find(report, cause::BadIndex, at + 4, "the idx1 size is %" PRIu32 ", but %" PRIu64 " bytes follow",
             size, rest);
    else if (size % 16)
        find(report, cause::BadIndex, at + 4, "the idx1 size %" PRIu32 " is no multiple of 16", size);
    return {at + 8, (riffSizeHolds || size > rest ? rest : size) / 16};
}

void compare(Report& report, uint64_t at, uint64_t entryAt, const Head& head, const Entry& entry)
{
    if (entry.id != head.id)
        find(report, cause::BadIndex, entryAt, "index id %s for a chunk %s", id_text(entry.id).c_str(),
             id_text(head.id).c_str());
    if (entry.size != head.size)
        find(report, cause::BadIndex, entryAt + 12,
             "index size %" PRIu32 ", but the chunk at %" PRIu64 " has %" PRIu32, entry.size, at, head.size);
    if (entry.flags != 0x10 && (entry.flags != 0 || head.id == fcc("01wb")))
        find(report, cause::BadIndex, entryAt + 4, "index flags 0x%" PRIx32 " for a chunk %s", entry.flags,
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
            find(report, cause::BadIndex, entryAt + 8,
                 "index offset %" PRIu32 ", but the chunk is at %" PRIu64, entry.offset, offset);
            ++number;
            return true;
        }
        if (entry.offset > offset) break;
        find(report, cause::BadIndex, entryAt + 8, "index offset %" PRIu32 " points to no chunk",
             entry.offset);
    }
    if (number < index.count)
        find(report, cause::BadIndex, at, "the chunk has no index entry");
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

void check_picture(Report& report, Window& chunks, uint64_t at, uint32_t size)
{
    const uint8_t* start = size < 4 ? nullptr : look(chunks, at, 4);
    const uint32_t code = start ? load(start, 4) : 0;
    if (size > 0 && (code & 0xFFFFFF) != 0x010000 && code != 0x01000000)
        find(report, cause::NoStartCode, at, "the picture begins without a start code");
}

// Where the picture's first slice lies further behind, nothing is known.
void check_key_flag(Report& report, Window& chunks, uint64_t at, uint32_t size, const Entry& entry,
                    uint64_t entryAt)
{
    constexpr size_t Looked = 512;
    constexpr uint8_t Idr = 5;
    const size_t count = std::min<size_t>(size, Looked);
    const uint8_t* start = look(chunks, at, count);
    if (!start || (entry.flags != 0 && entry.flags != 0x10)) return;
    const std::span bytes(start, count);
    const uint8_t type = annexb::first_slice_type(bytes);
    if (type == Idr && entry.flags == 0)
        find(report, cause::BadIndex, entryAt + 4, "index flags 0x0 for a key frame");
    if (type != 0 && type != Idr && entry.flags == 0x10 && !annexb::first_slice_is_intra(bytes))
        find(report, cause::BadIndex, entryAt + 4, "index flags 0x10 for what is no key frame");
}

void count(Counts& counts, const Head& head)
{
    (head.id == fcc("00dc") ? counts.video : counts.audio) += 1;
    if (head.id == fcc("00dc") && head.size > counts.largest) counts.largest = head.size;
}

// Chunk by chunk, each beside its index entry.
void check_chunks(Report& report, Window& chunks, Window& entries, Movi& movi, const Index& index,
                  const Look& look)
{
    uint64_t number = 0, at = movi.base + 4;
    movi.counts.whole = true;
    while (at < movi.end && !chunks.failed && !entries.failed) {
        Head head{};
        Entry entry{};
        uint64_t skipTo = 0;
        const bool readable = read_head(chunks, at, head) && at + 8 <= movi.end;
        if (!readable || !is_stream(head.id) || head.end > movi.end) {
            if (!readable)
                find(report, cause::BadChunk, at, "%" PRIu64 " stray bytes at the end of the movi list",
                     movi.end - at);
            else if (!is_stream(head.id))
                find(report, cause::BadChunk, at, "unknown chunk id %s", id_text(head.id).c_str());
            else
                find(report, cause::WrongSize, at + 4,
                     "the chunk's size %" PRIu32 " passes the end of the movi list", head.size);
            if (!repair(chunks, entries, movi, index, number, at, head, skipTo)) {
                movi.counts.whole = false;
                at = skipTo;
                continue;
            }
        } else if (!is_border(chunks, movi, head.end)) {
            const Head said = head;
            if (repair(chunks, entries, movi, index, number, at, head, skipTo) && head.size != said.size)
                find(report, cause::WrongSize, at + 4,
                     "the chunk's size is %" PRIu32 ", but the next one is %" PRIu32 " bytes on", said.size,
                     head.size);
            else
                head = said;
        }
        if (report.audio.present == false && head.id == fcc("01wb"))
            find(report, cause::BadChunk, at, "an audio chunk, but no audio stream");
        const uint8_t* pad = head.size & 1 ? avi::look(chunks, head.end - 1, 1) : nullptr;
        if (head.size & 1 && (!pad || *pad != 0x30))
            find(report, cause::BadChunk, head.end - 1, "the pad byte is not 0x30");
        if (look.strict && head.id == fcc("00dc")) check_picture(report, chunks, at + 8, head.size);
        const bool known = take_entry(report, entries, movi, index, at, head.end, number, entry);
        const uint64_t entryAt = index.begin + 16 * (number - 1);
        if (known) compare(report, at, entryAt, head, entry);
        if (known && look.strict && head.id == fcc("00dc"))
            check_key_flag(report, chunks, at + 8, head.size, entry, entryAt);
        count(movi.counts, head);
        if (!movi.counts.firstPicture && head.id == fcc("00dc") && known && (entry.flags & 0x10)) {
            movi.counts.firstPicture = at + 8;
            movi.counts.firstSize = head.size;
        }
        if (look.each)
            look.each(
                {head.id == fcc("00dc") ? "00dc" : "01wb", at, head.size, known && (entry.flags & 0x10)});
        at = head.end;
    }
    if (movi.unindexed && index.begin)
        find(report, cause::BadIndex, movi.from, "%" PRIu64 " chunks from here on have no index entry",
             movi.unindexed);
    if (number < index.count)
        find(report, cause::BadIndex, index.begin + 16 * number,
             "%" PRIu64 " index entries behind the last chunk's", index.count - number);
}

} // namespace

Counts check_movi(Report& report, const File& file, uint32_t area, bool riffSizeHolds, const Look& look)
{
    Window chunks(file), entries(file);
    const size_t before = report.findings.size();
    const uint8_t* list = avi::look(chunks, area, 12);
    if (chunks.failed) return tell_unreadable(report, before), Counts{};
    if (!list) {
        find(report, cause::CutOff, area, "no room for a movi list");
        return {};
    }
    if (load(list, 4) != fcc("LIST")) find(report, cause::WrongField, area, "LIST of movi is missing");
    if (load(list + 8, 4) != fcc("movi")) find(report, cause::WrongField, area + 8, "movi is missing");

    Movi movi;
    Index index;
    if (find_movi_end(report, chunks, area, movi))
        index = check_index_header(report, entries, movi.end, riffSizeHolds);
    report.moviOffset = movi.base;
    check_chunks(report, chunks, entries, movi, index, look);
    report.videoChunks = movi.counts.video;
    report.audioChunks = movi.counts.audio;
    if (chunks.failed || entries.failed) return tell_unreadable(report, before), Counts{};
    if (movi.counts.whole && movi.counts.video + movi.counts.audio == 0)
        find(report, cause::NoFrames, movi.base, "the movi list is empty");
    return movi.counts;
}

} // namespace avi
