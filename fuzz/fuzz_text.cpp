// Text, number and address helpers. Every buffer is exactly as long as it has to be, so that one byte too
// many is seen.
#include "common_fun.h"
#include "fuzz.h"
#include "libos.h"

#include <cstring>

struct Text // a writable copy that ends with its zero
{
    std::vector<char> bytes;

    explicit Text(const std::string& from) : bytes(from.c_str(), from.c_str() + strlen(from.c_str()) + 1) {}
    char* data() { return bytes.data(); }
    size_t length() const { return strlen(bytes.data()); }
};

static void check_hex(const std::string& raw)
{
    Bytes text(2 * raw.size() + 1), back(raw.size()), any(raw.size() / 2 + 1);
    std::string in = raw;
    const int len = int(raw.size());
    if (len == 0) return;
    os_encode(in.data(), len, reinterpret_cast<char*>(text.data()));
    os_decode(reinterpret_cast<char*>(text.data()), 2 * len, reinterpret_cast<char*>(back.data()));
    REQUIRE(memcmp(back.data(), raw.data(), raw.size()) == 0);
    REQUIRE(os_decode(in.data(), len, reinterpret_cast<char*>(any.data())) == 1);
}

static void check_sets(FuzzedDataProvider& data, const std::string& raw)
{
    static const char* const sets[] = {"UTF-8", "UTF-16LE", "GBK", "ISO-8859-1", "ASCII", "nonsense"};
    const char *from = data.PickValueInArray(sets), *to = data.PickValueInArray(sets);
    const int32 room = data.ConsumeIntegralInRange<int32>(0, 64);
    std::vector<char> save(size_t(room) + 1), in(raw.begin(), raw.end());
    const int32 len = os_code_convert(from, to, save.data(), room, in.data(), int32(in.size()));
    REQUIRE(len <= room && len >= -6 && save[size_t(room)] == 0);
}

static void check_addresses(const std::string& raw)
{
    Text address(raw), again(raw), mac(raw);
    const bool changed = ChangeIpAddr(address.data()) == 1;
    REQUIRE(address.length() <= again.length());
    if (changed) {
        Text twice(address.data());
        ChangeIpAddr(twice.data());
        REQUIRE(strcmp(twice.data(), address.data()) == 0);
    }
    const int valid = IsValidIP(again.data());
    REQUIRE(valid == -1 || (valid >= 1 && valid <= 3));
    char dotted[16];
    IPAddressU32ToChar(ipstring2u32(again.data()), dotted);
    REQUIRE(IsValidIP(dotted) >= 1 || dotted[0] == '0');
    ReverseMAC(mac.data());
    ReverseMAC(mac.data());
    REQUIRE(strcmp(mac.data(), again.data()) == 0);
}

static void check_splits(FuzzedDataProvider& data, const std::string& raw)
{
    const std::string separator = data.ConsumeRandomLengthString(3);
    Text whole(raw), cut(separator), left(raw), right(raw);
    OnCharLeft(whole.data(), cut.data(), left.data());
    OnCharRight(whole.data(), cut.data(), right.data());
    REQUIRE(left.length() + cut.length() + right.length() <= whole.length() + cut.length());

    const int limit = data.ConsumeIntegralInRange<int>(0, 5);
    std::vector<std::vector<char>> fields(size_t(limit) + 1, std::vector<char>(whole.length() + 1));
    std::vector<char*> places;
    for (auto& field : fields) places.push_back(field.data());
    Text source(raw), tokens(raw);
    REQUIRE(SplitStringToArrayEx(source.data(), cut.data(), places.data(), limit) < std::max(limit, 1));
    std::vector<char*> array(size_t(limit) + 1);
    REQUIRE(strtoken_r(tokens.data(), cut.data(), array.data(), limit) <= limit);

    const int field_size = data.ConsumeIntegralInRange<int>(1, 9);
    std::vector<Bytes> small{size_t(limit), Bytes(static_cast<size_t>(field_size))};
    std::vector<unsigned char*> at(size_t(limit) + 1);
    for (size_t i = 0; i < small.size(); ++i) at[i] = small[i].data();
    REQUIRE(SplitString(reinterpret_cast<unsigned char*>(whole.data()),
                        reinterpret_cast<unsigned char*>(cut.data()), at.data(), field_size,
                        limit) <= std::max(limit, 1));
    if (raw.empty()) return;
    std::vector<char> flat(raw.begin(), raw.end());
    std::vector<int> lengths(size_t(limit) + 1);
    const int count =
        kt_strnchr(flat.data(), int(flat.size()), cut.data()[0], array.data(), lengths.data(), limit);
    for (int i = 0; i < std::min(count, limit + 1); ++i)
        REQUIRE(array[size_t(i)] >= flat.data() &&
                array[size_t(i)] + lengths[size_t(i)] <= flat.data() + flat.size());
}

static void check_numbers(FuzzedDataProvider& data, const std::string& raw)
{
    const auto number = data.ConsumeIntegral<unsigned long long>();
    int bits[64] = {};
    REQUIRE(binary2decimal(decimal2binary(number, bits), bits) == number);
    char text[11];
    itoa(unsigned(number), text, 16);
    REQUIRE(strtoul(text, nullptr, 10) == unsigned(number));
    Bytes in(raw.begin(), raw.end()), base64((raw.size() + 2) / 3 * 4 + 1);
    to_base64(base64.data(), in.data(), int(in.size()));
    REQUIRE(strlen(reinterpret_cast<char*>(base64.data())) == base64.size() - 1);
    // A packet that carries its own checksum sums up to nothing.
    if (in.size() % 2) in.push_back(0);
    uint16_t sum = cal_chksum(reinterpret_cast<unsigned short*>(in.data()), int(in.size()));
    in.insert(in.end(), reinterpret_cast<uint8_t*>(&sum), reinterpret_cast<uint8_t*>(&sum) + 2);
    REQUIRE(cal_chksum(reinterpret_cast<unsigned short*>(in.data()), int(in.size())) == 0);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size)
{
    FuzzedDataProvider data(bytes, size);
    const std::string raw = data.ConsumeRandomLengthString(300);
    check_hex(raw);
    check_sets(data, raw);
    check_addresses(raw);
    check_splits(data, raw);
    check_numbers(data, raw);
    Text word(raw);
    check_string(word.data());
    return 0;
}
