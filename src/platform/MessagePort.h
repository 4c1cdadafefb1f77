#pragma once
// Named request/reply message ports. A local port is owned by one process and receives messages
// on that process's main run loop, one at a time; any process may open a remote port by name and
// send to it, waiting for a reply or not.
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "platform/Bytes.h"

namespace tw {

class RunLoop;

// Outcome of a send; the values follow the platform's message port error codes.
enum class PortStatus : int32_t {
    Success = 0,
    SendTimeout = -1,
    ReceiveTimeout = -2,
    IsInvalid = -3,
    TransportError = -4,
};

// A local port's handler: the message id and the payload (null data is std::nullopt); it returns
// the reply payload, or std::nullopt for no reply data.
using LocalPortCallback = std::function<Payload(int32_t msgid, const Payload& data)>;

class LocalPort {
public:
    virtual ~LocalPort() = default;
    virtual const std::string& name() const = 0;
    virtual bool isValid() const = 0;
    // Stops receiving and releases the name.
    virtual void invalidate() = 0;
};

class RemotePort {
public:
    virtual ~RemotePort() = default;
    // False once the owner of the port has gone away.
    virtual bool isValid() = 0;
    // Sends one message. With `expectReply` the call waits up to `receiveTimeout` seconds for the
    // reply and stores its payload in `reply` (std::nullopt when the reply had no data);
    // without it the send is one-way.
    virtual PortStatus sendRequest(int32_t msgid, const Payload& data, double sendTimeout,
                                   double receiveTimeout, bool expectReply, Payload* reply) = 0;
};

class MessagePortService {
public:
    virtual ~MessagePortService() = default;
    // A local port registered under `name`, whose callback runs on `loop`; nullptr when the name is
    // taken by a live port or cannot be registered.
    virtual std::shared_ptr<LocalPort> createLocal(const std::string& name, LocalPortCallback callback,
                                                   RunLoop& loop) = 0;
    // A remote port for `name`, or nullptr when no live port has that name.
    virtual std::shared_ptr<RemotePort> createRemote(const std::string& name) = 0;
};

}  // namespace tw
