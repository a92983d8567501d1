#include "avi_chunks.h"

#include "annexb.h"

#include <algorithm>
#include <array>

namespace tools {
namespace {

constexpr uint32_t MoviHeader = sizeof(AVI_MoviHeader);
constexpr uint64_t EntrySize = sizeof(AVI_IndexEntity);
constexpr size_t FirstLook = 512;     // where the first slice mostly begins
constexpr size_t LastLook = 1u << 20; // most frames are no bigger
constexpr size_t SpsLook = 1u << 16;  // parameter sets stand in front of the first slice
constexpr uint32_t LargestChunk = 2u << 20;
constexpr uint8_t Idr = 5, Sps = 7;
constexpr uint32_t KeyFlag = 0x10;

uint64_t count_of(const AviChunks& chunks)
{
    return uint64_t{chunks.pictures} + chunks.audio;
}

// The chunks one behind the other, with a view into their first bytes.
struct Walk
{
    avi::Window window;
    std::vector<uint8_t> bytes; // of a chunk whose start does not do

    explicit Walk(const avi::File& file) : window(file) {}
};

std::span<const uint8_t> chunk_start(Walk& walk, uint64_t at, uint32_t size, size_t most)
{
    const size_t count = std::min<size_t>(size, most);
    if (count == 0) return {};
    if (count <= FirstLook) {
        const uint8_t* start = avi::look(walk.window, at + 8, count);
        return {start, start ? count : 0};
    }
    walk.bytes.resize(count);
    const size_t got = avi::read_at(walk.window.file, at + 8, walk.bytes.data(), count);
    if (got != count) walk.window.failed = true;
    return {walk.bytes.data(), got};
}

bool is_key(Walk& walk, uint64_t at, uint32_t size)
{
    uint8_t type = annexb::first_slice_type(chunk_start(walk, at, size, FirstLook));
    if (type == 0 && size > FirstLook) type = annexb::first_slice_type(chunk_start(walk, at, size, LastLook));
    return type == Idr;
}

void look_for_sps(Walk& walk, uint64_t at, uint32_t size, AviChunks& chunks)
{
    const auto bytes = chunk_start(walk, at, size, SpsLook);
    const auto nals = annexb::split_nals(bytes);
    const auto found =
        std::find_if(nals.begin(), nals.end(), [](const auto& nal) { return nal.type == Sps; });
    if (found != nals.end())
        chunks.sps.assign(bytes.begin() + long(found->payload), bytes.begin() + long(found->end));
}

bool is_key_chunk(Walk& walk, uint64_t at, const avi::Head& head)
{
    return head.id != avi::fcc("00dc") || is_key(walk, at, head.size);
}

void keep(Walk& walk, uint64_t at, const avi::Head& head, AviChunks& chunks)
{
    if (head.id != avi::fcc("00dc")) {
        ++chunks.audio;
        return;
    }
    ++chunks.pictures;
    chunks.largest = std::max(chunks.largest, head.size);
    if (chunks.sps.empty() && is_key(walk, at, head.size)) look_for_sps(walk, at, head.size, chunks);
}

// Chunks begin behind a header area of one of two sizes.
bool find_first(avi::Window& window, AviChunks& chunks)
{
    for (const uint32_t area : {avi::VideoHeaderArea, avi::AudioHeaderArea}) {
        chunks.area = area;
        if (avi::is_stream(avi::look_word(window, area + MoviHeader))) return true;
    }
    return false;
}

// Zeros at the end of the file are blocks that never reached the disk. Where they begin.
uint64_t find_zeros(const avi::File& file)
{
    std::array<uint8_t, 65536> block;
    for (uint64_t end = file.length; end > 0;) {
        const auto count = size_t(std::min<uint64_t>(end, block.size()));
        if (avi::read_at(file, end - count, block.data(), count) != count) return end;
        const auto last = std::find_if(block.rend() - long(count), block.rend(), [](uint8_t b) { return b; });
        if (last != block.rend()) return end - count + size_t(block.rend() - last);
        end -= count;
    }
    return 0;
}

// Did the zeros take its end? Those at the end of a chunk behind which the file ends too are its own. A pad
// byte that is missing is no loss.
bool is_torn(const avi::File& file, const avi::Head& head, uint64_t zeros)
{
    const uint64_t data = head.end - head.size % 2;
    return data > zeros && data != file.length;
}

// A kill leaves none behind a torn chunk. By chance its own bytes look like the head of one, but hardly with
// another head where that one ends, or with all that was written.
bool chunks_behind(avi::Window& window, uint64_t torn, uint64_t zeros)
{
    avi::Window beyond(window.file);
    avi::Head head{}, next{};
    for (uint64_t at = torn + 8; at < zeros && avi::read_head(window, at, head); ++at) {
        if (head.id == avi::fcc("idx1") &&
            (at + 12 > zeros || avi::is_stream(avi::look_word(beyond, at + 8))))
            return true;
        if (!avi::is_stream(head.id) || head.size > LargestChunk) continue;
        if (head.end + 8 > zeros) return true;
        if (avi::read_head(beyond, head.end, next) &&
            (avi::is_stream(next.id) || next.id == avi::fcc("idx1")))
            return true;
    }
    window.failed |= beyond.failed;
    return false;
}

// A chunk that claims to be bigger than any frame is damage, behind which more may lie.
bool may_be_cut(avi::Window& window, const AviChunks& chunks, uint64_t zeros, std::string& why)
{
    const std::string place = std::to_string(chunks.end);
    const uint64_t cut = zeros > chunks.end ? zeros - chunks.end : 0;
    avi::Head head{};
    if (cut < sizeof(AVI_FrameHeader) || !avi::read_head(window, chunks.end, head)) return true;
    why = "what lies at offset " + place + " is no torn chunk";
    if (head.id == avi::fcc("idx1")) return cut <= 8 + EntrySize * count_of(chunks);
    if (!avi::is_stream(head.id) || head.size > LargestChunk) return false;
    why = "chunks lie behind what looks like a torn one, at offset " + place;
    return !chunks_behind(window, chunks.end, zeros);
}

} // namespace

bool read_chunks(const avi::File& file, AviChunks& chunks, std::string& why)
{
    Walk walk(file);
    if (!find_first(walk.window, chunks)) {
        why = walk.window.failed ? "it cannot be read" : "no chunks where those of a recording begin";
        return false;
    }
    const uint64_t zeros = find_zeros(file);
    avi::Head head{};
    chunks.end = chunks.area + MoviHeader;
    while (avi::read_head(walk.window, chunks.end, head) && avi::is_stream(head.id) &&
           !is_torn(file, head, zeros)) {
        keep(walk, chunks.end, head, chunks);
        chunks.end = head.end;
        if (chunks.end + 8 + EntrySize * count_of(chunks) >= avi::SizeLimit) {
            why = "longer than an AVI file can be";
            return false;
        }
    }
    chunks.cut = file.length > chunks.end ? file.length - chunks.end : 0;
    why = "no whole chunk in it";
    const bool known = count_of(chunks) > 0 && may_be_cut(walk.window, chunks, zeros, why);
    if (!walk.window.failed && !avi::is_stopped(file)) return known;
    why = "it cannot be read to its end";
    return false;
}

bool each_entry(const avi::File& file, const AviChunks& chunks,
                const std::function<bool(const AVI_IndexEntity&)>& take,
                const std::function<bool(uint64_t)>& wrongPad)
{
    Walk walk(file);
    avi::Head head{};
    uint64_t count = 0;
    for (uint64_t at = chunks.area + MoviHeader; at < chunks.end; at = head.end, ++count) {
        if (!avi::read_head(walk.window, at, head) || !avi::is_stream(head.id)) return false;
        const uint32_t flags = is_key_chunk(walk, at, head) ? KeyFlag : 0;
        const auto offset = uint32_t(at - chunks.area - MoviHeader + 4); // from the "movi"
        if (walk.window.failed || !take({head.id, flags, offset, head.size})) return false;
        if (head.size % 2 == 0) continue;
        const uint8_t* pad =
            avi::look(walk.window, head.end - 1, 1); // with the next chunk's head in one read
        if (walk.window.failed || ((!pad || *pad != PadByte) && !wrongPad(head.end - 1))) return false;
    }
    return count == count_of(chunks);
}

} // namespace tools
