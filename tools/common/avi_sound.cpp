#include "avi_sound.h"

#include "Quorlin.h"
#include "avi_bytes.h"

namespace tools {

uint32_t pictures_before_sound(const std::string& path)
{
    const avi::File file(path);
    avi::Window window(file);
    avi::Head head{};
    if (file.fd < 0 || look_word(window, avi::AudioHeaderArea + 8) != avi::fcc("movi")) return 0;
    if (!read_head(window, avi::AudioHeaderArea, head)) return 0;
    const uint64_t index = head.end;
    if (!read_head(window, index, head) || head.id != avi::fcc("idx1")) return 0;

    uint32_t pictures = 0;
    for (uint64_t at = index + 8; at + sizeof(AVI_IndexEntity) <= head.end; at += sizeof(AVI_IndexEntity)) {
        // The sound of a picture stands behind it.
        if (look_word(window, at) != avi::fcc("00dc")) return pictures > 0 ? pictures - 1 : 0;
        ++pictures;
    }
    return 0;
}

} // namespace tools
