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
constexpr uint32_t LargestChunk = 2u << 20;
constexpr uint8_t Idr = 5, Sps = 7;
constexpr uint32_t KeyFlag = 0x10;

std::vector<uint8_t> chunk_start(const avi::File& file, uint64_t at, uint32_t size, size_t most)
{
    std::vector<uint8_t> bytes(std::min<size_t>(size, most));
    bytes.resize(avi::read_at(file, at + 8, bytes.data(), bytes.size()));
    return bytes;
}

bool is_key(const avi::File& file, uint64_t at, uint32_t size)
{
    uint8_t type = 0;
    for (const size_t most : {FirstLook, LastLook}) {
        if (type == 0) type = annexb::first_slice_type(chunk_start(file, at, size, most));
    }
    return type == Idr;
}

void look_for_sps(const avi::File& file, uint64_t at, uint32_t size, AviChunks& chunks)
{
    const auto bytes = chunk_start(file, at, size, LastLook);
    const auto nals = annexb::split_nals(bytes);
    const auto found =
        std::find_if(nals.begin(), nals.end(), [](const auto& nal) { return nal.type == Sps; });
    if (found != nals.end())
        chunks.sps.assign(bytes.begin() + long(found->payload), bytes.begin() + long(found->end));
}

void keep(const avi::File& file, uint64_t at, const avi::Head& head, AviChunks& chunks)
{
    const bool video = head.id == avi::fcc("00dc");
    const bool key = !video || is_key(file, at, head.size);
    if (video && key && chunks.sps.empty()) look_for_sps(file, at, head.size, chunks);
    if (video) chunks.largest = std::max(chunks.largest, head.size);
    (video ? chunks.pictures : chunks.audio) += 1;
    const auto offset = uint32_t(at - chunks.area - MoviHeader + 4); // from the "movi"
    chunks.index.push_back({head.id, key ? KeyFlag : 0, offset, head.size});
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

// Did the zeros take its end? Those at the end of a chunk behind which the file ends too are its own, but a
// pad byte is none.
bool is_torn(const avi::File& file, const avi::Head& head, uint64_t zeros)
{
    return head.end > file.length || (head.end > zeros && (head.end < file.length || head.size % 2));
}

// A chunk that claims to be bigger than any frame is damage, behind which more may lie.
bool may_be_cut(avi::Window& window, const AviChunks& chunks, uint64_t zeros)
{
    const uint64_t cut = zeros > chunks.end ? zeros - chunks.end : 0;
    avi::Head head{};
    if (cut < sizeof(AVI_FrameHeader) || !avi::read_head(window, chunks.end, head)) return true;
    if (head.id == avi::fcc("idx1")) return cut <= 8 + EntrySize * chunks.index.size();
    return avi::is_stream(head.id) && head.size <= LargestChunk;
}

} // namespace

bool read_chunks(const avi::File& file, AviChunks& chunks, std::string& why)
{
    avi::Window window(file);
    if (!find_first(window, chunks)) {
        why = "no chunks where those of a recording begin";
        return false;
    }
    const uint64_t zeros = find_zeros(file);
    avi::Head head{};
    chunks.end = chunks.area + MoviHeader;
    while (avi::read_head(window, chunks.end, head) && avi::is_stream(head.id) &&
           !is_torn(file, head, zeros)) {
        keep(file, chunks.end, head, chunks);
        chunks.end = head.end;
        if (chunks.end + 8 + EntrySize * chunks.index.size() >= avi::SizeLimit) {
            why = "longer than an AVI file can be";
            return false;
        }
    }
    chunks.cut = file.length - chunks.end;
    why = "no whole chunk in it";
    if (chunks.index.empty()) return false;
    why = "what lies at offset " + std::to_string(chunks.end) + " is no torn chunk";
    return may_be_cut(window, chunks, zeros);
}

} // namespace tools
