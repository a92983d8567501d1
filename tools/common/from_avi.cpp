#include "from_avi.h"

#include "CommonFun.h"
#include "adts.h"
#include "avi_check.h"

#include <algorithm>

namespace sdv {
namespace {

constexpr uint8_t CodeAlaw = 1, CodeMulaw = 2, CodeAac = 22;
constexpr size_t MaxFrame = 1u << 20;
constexpr size_t MaxChunks = size_t{1} << 24; // of a hostile file; all are held in memory
constexpr size_t MaxSlots = 255;              // on either side of a picture
constexpr size_t MaxAacSlot = 0xFFFE;
constexpr size_t AdtsHeader = 7;

uint8_t audio_code(const avi::Audio& audio)
{
    if (!audio.present) return 0;
    if (audio.formatTag == 0xFF) return CodeAac;
    return audio.formatTag == 6 ? CodeAlaw : CodeMulaw;
}

void tell_header(const avi::Report& report, FileFields& header)
{
    header.frameRate = static_cast<uint16_t>(report.rate);
    header.width = static_cast<uint16_t>(report.width);
    header.height = static_cast<uint16_t>(report.height);
    header.hasAudio = report.audio.present;
    header.sampleRate = report.audio.present ? report.audio.sampleRate : report.sampleRate;
    if (report.audio.present) header.channels = static_cast<uint8_t>(report.audio.channels);
}

size_t slot_size(const FrameFields& frame)
{
    size_t size = 0;
    for (const auto* slots : {&frame.audioBefore, &frame.audioAfter})
        for (const Bytes& slot : *slots) size = std::max(size, slot.size());
    return size;
}

// All slots of a frame have one size. Those of AAC can be filled up.
bool takes(const FrameFields& frame, const std::vector<Bytes>& side, const Bytes& slot)
{
    const size_t size = slot_size(frame);
    if (side.size() == MaxSlots) return false;
    if (size && size != slot.size() && frame.audioCode != CodeAac) return false;
    const size_t slots = frame.audioBefore.size() + frame.audioAfter.size() + 1;
    const size_t fill = frame.audioCode == CodeAac ? 1 : 0;
    return sizeof(S_FrameHeader) + frame.video.size() + slots * (std::max(size, slot.size()) + fill) <=
           MaxFrame;
}

// What the picture before does not take has to go in front of the one that follows.
bool deal(std::vector<Bytes>& slots, FrameFields* last, FrameFields* next)
{
    for (Bytes& slot : slots) {
        const bool early = last && (!next || next->audioBefore.empty());
        if (early && takes(*last, last->audioAfter, slot))
            last->audioAfter.push_back(std::move(slot));
        else if (next && takes(*next, next->audioBefore, slot))
            next->audioBefore.push_back(std::move(slot));
        else
            return false;
    }
    slots.clear();
    return true;
}

void add_aac(std::vector<Bytes>& slots, const Bytes& data, uint32_t rate)
{
    const Bytes frame = adts::frame(data, rate);
    if (slots.empty() || slots.back().size() + frame.size() > MaxAacSlot) slots.emplace_back();
    append(slots.back(), frame);
}

// A frame that ends with its slot is read only if it is longer than its header, hence a byte more.
void fill_up(FrameFields& frame)
{
    const size_t size = slot_size(frame) + 1;
    for (auto* slots : {&frame.audioBefore, &frame.audioAfter})
        for (Bytes& slot : *slots) slot.resize(size, 0);
}

bool deal_chunks(const std::string& path, const avi::Report& report, const std::vector<avi::Chunk>& chunks,
                 std::vector<FrameFields>& frames)
{
    const uint8_t code = audio_code(report.audio);
    std::vector<Bytes> waiting;
    for (const avi::Chunk& chunk : chunks) {
        Bytes data = avi::chunk_bytes(path, chunk);
        if (chunk.id == "01wb") {
            if (code == CodeAac && data.size() > adts::MAX_FRAME - AdtsHeader) return false;
            code == CodeAac ? add_aac(waiting, data, report.audio.sampleRate)
                            : waiting.push_back(g711_slot(data));
            continue;
        }
        FrameFields next;
        next.number = static_cast<uint32_t>(frames.size() + 1);
        next.type = chunk.key ? 0 : 1;
        next.audioCode = code;
        next.video = std::move(data);
        if (!deal(waiting, frames.empty() ? nullptr : &frames.back(), &next)) return false;
        frames.push_back(std::move(next));
    }
    return deal(waiting, frames.empty() ? nullptr : &frames.back(), nullptr);
}

} // namespace

bool from_avi(const std::string& path, FileFields& header, std::vector<FrameFields>& frames, std::string& why)
{
    std::vector<avi::Chunk> chunks;
    const auto keep = [&chunks](const avi::Chunk& chunk) {
        if (chunks.size() <= MaxChunks) chunks.push_back(chunk);
    };
    const avi::Report report = avi::check_file(path, {.each = keep});
    if (!report.sound()) {
        const avi::Finding& first = report.findings.front();
        why = path + ": " + first.what;
        if (report.kind == avi::Kind::avi)
            why = path + " is not sound: offset " + std::to_string(first.offset) + ": " + first.what;
        return false;
    }
    why = path + ": more than " + std::to_string(MaxChunks) + " chunks";
    if (chunks.size() > MaxChunks) return false;
    why = path + ": its audio does not fit into frames of at most 1 MiB";
    if (!deal_chunks(path, report, chunks, frames)) return false;
    if (audio_code(report.audio) == CodeAac)
        for (FrameFields& frame : frames) fill_up(frame);
    tell_header(report, header);
    return true;
}

} // namespace sdv
