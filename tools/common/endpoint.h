// Where to connect to or listen: a host and a port, as "camera.local:9000" or "0.0.0.0:9000".
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace tools {

struct Endpoint
{
    std::string host;
    uint16_t port = 0;
};

// Nothing when the text is no HOST:PORT.
std::optional<Endpoint> parse_endpoint(const std::string& text);

// The host's IPv4 address as text; empty, and the reason in `why`, when there is none. May wait for a name
// server.
std::string find_address(const Endpoint& endpoint, std::string& why);

} // namespace tools
