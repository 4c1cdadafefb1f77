#pragma once
// A run loop running on a thread of its own for the length of a test: ports and notification
// observers registered on it are served there while the test thread sends and waits.
#include <future>
#include <memory>
#include <thread>

#include "platform/linux/AsioRunLoop.h"

namespace tw::test {

class LoopThread {
public:
    // Runs `loop` (a new one when none is given) until the object goes away.
    explicit LoopThread(std::shared_ptr<linuxp::AsioRunLoop> loop = std::make_shared<linuxp::AsioRunLoop>())
        : loop_(std::move(loop)) {
        std::promise<std::thread::id> started;
        auto startedFuture = started.get_future();
        loop_->post([&] { started.set_value(std::this_thread::get_id()); });
        thread_ = std::thread([loop = loop_] { loop->run(); });
        id_ = startedFuture.get();
    }
    ~LoopThread() {
        loop_->stop();
        thread_.join();
    }
    LoopThread(const LoopThread&) = delete;
    LoopThread& operator=(const LoopThread&) = delete;

    linuxp::AsioRunLoop& loop() { return *loop_; }
    std::shared_ptr<linuxp::AsioRunLoop> shared() const { return loop_; }
    std::thread::id id() const { return id_; }

private:
    std::shared_ptr<linuxp::AsioRunLoop> loop_;
    std::thread thread_;
    std::thread::id id_;
};

}  // namespace tw::test
