// make_recording CLIP.h264 OUT.sdv MEGABYTES: a long recording for measurements. The pictures are the clip's,
// over and over, each grown by filler data to the size that a camera's pictures have: 40 to 60 KB for key
// frames, 2 to 20 KB for others. Every frame carries 40 ms of mu-law audio.
#include "annexb.h"
#include "sdv_build.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <random>

namespace {

constexpr uint8_t Filler[] = {0, 0, 0, 1, 12}; // start code and header of a NAL unit that decoders skip

// No zero bytes, so that nothing in it looks like a start code.
sdv::Bytes noise(std::mt19937& random, size_t count)
{
    std::uniform_int_distribution<int> value(1, 255);
    sdv::Bytes bytes(count);
    std::generate(bytes.begin(), bytes.end(), [&] { return uint8_t(value(random)); });
    return bytes;
}

sdv::Bytes picture(sdv::View unit, size_t size, const sdv::Bytes& pool)
{
    sdv::Bytes bytes = annexb::with_long_start_code(unit);
    if (bytes.size() + sizeof(Filler) >= size) return bytes;
    sdv::append(bytes, Filler);
    sdv::append(bytes, sdv::View(pool).first(size - bytes.size()));
    return bytes;
}

bool write(std::ofstream& out, const sdv::Bytes& bytes)
{
    return bool(out.write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size())));
}

bool make(sdv::View clip, std::ofstream& out, uint64_t wanted)
{
    const auto nals = annexb::split_nals(clip);
    const auto units = annexb::split_access_units(clip, nals);
    if (units.empty()) return false;

    std::mt19937 random(1);
    std::uniform_int_distribution<size_t> keySize(40000, 60000), otherSize(2000, 20000);
    const sdv::Bytes pool = noise(random, 60000);
    sdv::FrameFields frame;
    frame.audioCode = 2;
    frame.audioAfter = {sdv::g711_slot(sdv::View(pool).first(320))};
    sdv::FileFields file;
    file.hasAudio = 1;
    if (!write(out, sdv::file_header(file))) return false;
    for (uint64_t done = 88; done < wanted; ++frame.number) {
        const annexb::AccessUnit& unit = units[(frame.number - 1) % units.size()];
        frame.type = unit.key ? 0 : 1;
        frame.timeStamp = frame.number * 40;
        frame.video = picture(clip.subspan(unit.begin, unit.end - unit.begin),
                              unit.key ? keySize(random) : otherSize(random), pool);
        const sdv::Bytes bytes = sdv::frame(frame);
        if (!write(out, bytes)) return false;
        done += bytes.size();
    }
    return bool(out.flush());
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 4) {
        fprintf(stderr, "usage: make_recording CLIP.h264 OUT.sdv MEGABYTES\n");
        return 2;
    }
    std::ifstream in(argv[1], std::ios::binary);
    const sdv::Bytes clip{std::istreambuf_iterator<char>(in), {}};
    std::ofstream out(argv[2], std::ios::binary);
    if (make(clip, out, strtoull(argv[3], nullptr, 10) * 1000000)) return 0;
    fprintf(stderr, "make_recording: %s could not be made of %s\n", argv[2], argv[1]);
    return 1;
}
