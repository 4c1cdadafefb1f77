#pragma once
// Message ports over Unix domain stream sockets.
//
// A port named N on a device root R lives at the socket address derived from
// "<R>/run/ports/<N>": an abstract-namespace address (so no socket file is left behind and deep
// roots are not limited by the 108-byte socket path limit). Wire format, all integers
// little-endian:
//   request: u32 bodyLength | u32 sequence | i32 msgid | u8 flags | payload
//            flags bit 0: a reply is expected; bit 1: the payload is present (not null data)
//   reply:   u32 bodyLength | u32 sequence | u8 flags | payload      (flags bit 1 as above)
// bodyLength counts everything after itself and is at most kMaxFrameBody; a longer or shorter
// frame closes that connection without touching the port or its other clients.
#include <sys/socket.h>
#include <sys/un.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "platform/MessagePort.h"

namespace tw::linuxp {

inline constexpr size_t kMaxFrameBody = 16 * 1024 * 1024;

// One request frame from the start of a connection's received bytes.
struct RequestFrame {
    uint32_t sequence = 0;
    int32_t msgid = 0;
    bool expectsReply = false;
    Payload data;
    size_t size = 0;  // the bytes the frame takes, length field included
};
enum class FrameParse { Complete, Incomplete, Malformed };
// Complete fills `frame`; Incomplete wants more bytes; Malformed means the connection must close
// (a length out of bounds, or payload bytes on a null payload).
FrameParse parseRequestFrame(const uint8_t* bytes, size_t size, RequestFrame& frame);

// The abstract socket address (without the leading NUL) used for a socket whose path would be
// `path`; stable for the same path in every process.
std::string abstractSocketName(const std::string& path);

// Fills `address` with the abstract-namespace address of `path` (through abstractSocketName) and
// returns the address length to pass to bind/connect/sendto.
socklen_t abstractSocketAddress(const std::string& path, sockaddr_un& address);

class UnixMessagePortService : public MessagePortService {
public:
    // `portsDir` is "<root>/run/ports".
    explicit UnixMessagePortService(std::string portsDir);

    std::shared_ptr<LocalPort> createLocal(const std::string& name, LocalPortCallback callback,
                                           RunLoop& loop) override;
    std::shared_ptr<RemotePort> createRemote(const std::string& name) override;

    const std::string& portsDir() const { return portsDir_; }

private:
    std::string portsDir_;
};

}  // namespace tw::linuxp
