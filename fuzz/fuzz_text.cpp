// Text, number and address helpers. Every buffer is exactly as long as it has to be, so that one byte too
// many is seen.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstring>

#include "../tests/support.h"
#include "common_fun.h"
#include "libos.h"

struct Text // a writable copy that ends with its zero
{
    std::vector<char> bytes;

    explicit Text(const std::string& from) : bytes(from.c_str(), from.c_str() + strlen(from.c_str()) + 1) {}
    char* data() { return bytes.data(); }
    size_t length() const { return strlen(bytes.data()); }
};

static unsigned char* bytes_in(Text& from)
{
    return reinterpret_cast<unsigned char*>(from.data());
}

static void check_hex(const std::string& raw)
{
    const int len = int(raw.size());
    std::vector<char> digits(2 * raw.size() + 1), back(raw.size()), any(raw.size() / 2 + 1);
    os_encode(text(raw), len, digits.data());
    os_decode(digits.data(), 2 * len, back.data());
    EXPECT_TRUE(std::equal(back.begin(), back.end(), raw.begin()));
    EXPECT_EQ(os_decode(text(raw), len, any.data()), 1);
}

static void check_sets(FuzzedDataProvider& data, const std::string& raw)
{
    static const char* const sets[] = {"UTF-8", "UTF-16LE", "GBK", "ISO-8859-1", "ASCII", "nonsense"};
    const char *from = data.PickValueInArray(sets), *to = data.PickValueInArray(sets);
    const int32 room = data.ConsumeIntegralInRange<int32>(0, 64);
    std::vector<char> save(size_t(room) + 1), in(raw.begin(), raw.end());
    const int32 len = os_code_convert(from, to, save.data(), room, in.data(), int32(in.size()));
    EXPECT_TRUE(len <= room && len >= -6 && save.back() == 0);
}

static void check_addresses(const std::string& raw)
{
    Text address(raw), again(raw), mac(raw);
    const bool changed = ChangeIpAddr(address.data()) == 1;
    EXPECT_LE(address.length(), again.length());
    Text twice(address.data());
    if (changed) ChangeIpAddr(twice.data());
    EXPECT_STREQ(twice.data(), address.data());
    const int valid = IsValidIP(again.data());
    EXPECT_TRUE(valid == -1 || (valid >= 1 && valid <= 3));
    char dotted[16];
    IPAddressU32ToChar(ipstring2u32(again.data()), dotted);
    EXPECT_TRUE(IsValidIP(dotted) >= 1 || dotted[0] == '0');
    ReverseMAC(mac.data());
    ReverseMAC(mac.data());
    EXPECT_STREQ(mac.data(), again.data());
}

static void check_splits(FuzzedDataProvider& data, const std::string& raw)
{
    const std::string separator = data.ConsumeRandomLengthString(3);
    Text whole(raw), cut(separator), left(raw), right(raw);
    OnCharLeft(whole.data(), cut.data(), left.data());
    OnCharRight(whole.data(), cut.data(), right.data());
    EXPECT_LE(left.length() + right.length(), whole.length());

    const int limit = data.ConsumeIntegralInRange<int>(0, 5);
    const size_t room = size_t(limit) + 1;
    std::vector<Text> fields(room, whole);
    std::vector<char*> places;
    for (Text& field : fields) places.push_back(field.data());
    Text source(raw), tokens(raw);
    EXPECT_LT(SplitStringToArrayEx(source.data(), cut.data(), places.data(), limit), std::max(limit, 1));
    EXPECT_LE(strtoken_r(tokens.data(), cut.data(), places.data(), limit), limit);

    const int field_size = data.ConsumeIntegralInRange<int>(1, 9);
    std::vector<Bytes> small{size_t(limit), Bytes(static_cast<size_t>(field_size))};
    std::vector<unsigned char*> at(room);
    for (size_t i = 0; i < small.size(); ++i) at[i] = small[i].data();
    EXPECT_LE(SplitString(bytes_in(whole), bytes_in(cut), at.data(), field_size, limit), std::max(limit, 1));

    std::vector<char> flat(raw.begin(), raw.end());
    if (flat.empty()) return;
    std::vector<int> lengths(room);
    const int size = int(flat.size());
    const int count = kt_strnchr(flat.data(), size, *cut.data(), places.data(), lengths.data(), limit);
    for (size_t i = 0; int(i) < std::min(count, limit + 1); ++i)
        EXPECT_TRUE(places[i] >= flat.data() && places[i] + lengths[i] <= flat.data() + size);
}

static void check_numbers(FuzzedDataProvider& data, const std::string& raw)
{
    const auto number = data.ConsumeIntegral<unsigned long long>();
    int bits[64] = {};
    EXPECT_EQ(binary2decimal(decimal2binary(number, bits), bits), number);
    char digits[11];
    itoa(unsigned(number), digits, 16);
    EXPECT_EQ(digits, std::to_string(unsigned(number)));
    Bytes in(raw.begin(), raw.end()), base64((raw.size() + 2) / 3 * 4 + 1, 1);
    to_base64(base64.data(), in.data(), int(in.size()));
    EXPECT_EQ(std::find(base64.begin(), base64.end(), 0), base64.end() - 1);
    // A packet that carries its own checksum sums up to nothing.
    in.resize((in.size() + 1) / 2 * 2);
    const auto checksum = [&] {
        return cal_chksum(reinterpret_cast<unsigned short*>(in.data()), int(in.size()));
    };
    sdv::append(in, bytes_of({half(checksum())}));
    EXPECT_EQ(checksum(), 0);
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
