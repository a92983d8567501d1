#include "endpoint.h"

#include <charconv>
#include <cstring>

#include <arpa/inet.h>
#include <netdb.h>

namespace tools {

std::optional<Endpoint> parse_endpoint(const std::string& text)
{
    const size_t colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0) return std::nullopt;

    Endpoint endpoint{text.substr(0, colon), 0};
    const char* const end = text.data() + text.size();
    const auto [behind, error] = std::from_chars(&text[colon + 1], end, endpoint.port);
    if (error != std::errc{} || behind != end) return std::nullopt;
    return endpoint;
}

std::string find_address(const Endpoint& endpoint, std::string& why)
{
    addrinfo wanted{};
    wanted.ai_family = AF_INET;
    wanted.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (const int error = getaddrinfo(endpoint.host.c_str(), nullptr, &wanted, &found)) {
        why = endpoint.host + ": " + gai_strerror(error);
        return "";
    }
    sockaddr_in address{};
    memcpy(&address, found->ai_addr, sizeof(address));
    freeaddrinfo(found);
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &address.sin_addr, text, sizeof(text));
    return text;
}

} // namespace tools
