#include "camera.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

namespace tools {

Losses stream_losses(const Camera& camera, const AviFiles& files)
{
    Losses losses = camera.prepared ? files.losses : Losses{};
    losses[Loss::garbage].bytes = camera.cutter.skipped;
    return losses;
}

std::optional<Outcome> why_nothing(const Camera& camera, const AviFiles& files)
{
    const bool foreign = camera.whyLost.code == cli::cause::NoRecording;
    if (camera.prepared && files.recorded) return std::nullopt;
    const auto outcome = outcome_of(stream_losses(camera, files));
    return outcome.value_or(Outcome{foreign ? cli::NoRecording : cli::Failed, camera.whyLost});
}

std::string peer_of(TcpClient* client)
{
    char ip[16];
    uint16 port = 0;
    os_tcp_client_get_remote(client, ip, &port);
    return std::string(ip) + ":" + std::to_string(port);
}

void watch_peer(const TcpClient* client)
{
    const int fd = client->connectfd, on = 1, idle = 10, pause = 5, times = 3;
    setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof(on));
    setsockopt(fd, IPPROTO_TCP, TCP_KEEPIDLE, &idle, sizeof(idle));
    setsockopt(fd, IPPROTO_TCP, TCP_KEEPINTVL, &pause, sizeof(pause));
    setsockopt(fd, IPPROTO_TCP, TCP_KEEPCNT, &times, sizeof(times));
}

} // namespace tools
