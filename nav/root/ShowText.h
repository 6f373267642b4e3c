// The text that answers one show command: collected piece by piece and written to a descriptor at
// once.
#pragma once

#include <charconv>
#include <cstring>
#include <memory>
#include <string_view>

#include "platform/netz/IpGenAddr.h"
#include "platform/vel/Types.h"

namespace Nav {

// Writes as much of the text as the descriptor takes without waiting; the rest, and errors, are
// ignored. The descriptor need not be a socket and may be closed on either side; no signal is
// raised.
void sendText(Vel::U32 fd, std::string_view text);

class ShowText {
  public:
    // Appends texts, numbers and addresses.
    template <class... Pieces>
    void add(const Pieces&... pieces) {
        const size_t room = (maxSize(pieces) + ...);
        if (capacity_ - size_ < room) grow(room);
        char* end = text_.get() + size_;
        ((end = put(pieces, end)), ...);
        size_ = static_cast<size_t>(end - text_.get());
    }
    void send(Vel::U32 fd) const { sendText(fd, {text_.get(), size_}); }

  private:
    static size_t maxSize(std::string_view text) { return text.size(); }
    static size_t maxSize(Vel::U32) { return 10; }
    static size_t maxSize(const Netz::IpGenAddr&) { return Netz::IpGenAddr::maxText; }

    static char* put(std::string_view text, char* out) {
        std::memcpy(out, text.data(), text.size());
        return out + text.size();
    }
    static char* put(Vel::U32 number, char* out) {
        return std::to_chars(out, out + 10, number).ptr;
    }
    static char* put(const Netz::IpGenAddr& addr, char* out) { return addr.write(out); }

    void grow(size_t room) {
        capacity_ = (size_ + room) * 2;
        auto larger = std::make_unique_for_overwrite<char[]>(capacity_);
        std::memcpy(larger.get(), text_.get(), size_);
        text_ = std::move(larger);
    }

    size_t capacity_ = 32 * 1024;
    size_t size_ = 0;
    std::unique_ptr<char[]> text_ = std::make_unique_for_overwrite<char[]>(capacity_);
};

}  // namespace Nav
