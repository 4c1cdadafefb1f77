#pragma once
// The bytes waiting to go out on one stream socket: the chunk of the write in flight and what was
// queued behind it. Sockets write one async write at a time; whatever arrives meanwhile is
// appended to the queue and goes out as one chunk with the next write.
#include <cstddef>
#include <string>
#include <string_view>

namespace tw::linuxp {

class OutgoingQueue {
public:
    // Queues `bytes` (and `suffix` right after them); true when no write is in flight, so the
    // caller starts one for pending().
    bool push(std::string_view bytes, std::string_view suffix = {}) {
        std::string& target = inFlight_ ? queued_ : writing_;
        target.append(bytes);
        target.append(suffix);
        if (inFlight_) return false;
        offset_ = 0;
        inFlight_ = true;
        return true;
    }
    // What the next write is to send.
    const char* data() const { return writing_.data() + offset_; }
    size_t size() const { return writing_.size() - offset_; }
    // Counts `written` bytes as sent; true when more is to be written (the caller starts the next
    // write for pending()), false when everything went out.
    bool wrote(size_t written) {
        offset_ += written;
        if (offset_ < writing_.size()) return true;
        writing_.clear();
        offset_ = 0;
        writing_.swap(queued_);
        inFlight_ = !writing_.empty();
        return inFlight_;
    }
    // Bytes not yet sent.
    size_t backlog() const { return size() + queued_.size(); }
    // Drops everything not yet sent; no write is in flight afterwards.
    void clear() {
        writing_.clear();
        queued_.clear();
        offset_ = 0;
        inFlight_ = false;
    }

private:
    std::string writing_;
    size_t offset_ = 0;
    std::string queued_;
    bool inFlight_ = false;
};

}  // namespace tw::linuxp
