// The answer to one show command: pieces of text, collected and written to a descriptor at once.
#pragma once

#include <charconv>
#include <string>
#include <string_view>

#include "platform/netz/IpGenAddr.h"
#include "platform/vel/Types.h"

namespace Nav {

// Writes as much of the text as the descriptor takes without waiting; what it does not take, and
// any error, is nobody's concern but the reader's. It may be no socket, or closed on either side:
// no signal is raised.
void sendAnswer(Vel::U32 fd, std::string_view text);

class Answer {
  public:
    Answer() { text_.reserve(32 * 1024); }

    Answer& operator<<(std::string_view text) {
        text_ += text;
        return *this;
    }
    Answer& operator<<(Vel::U32 number) {
        char digits[10];
        text_.append(digits, std::to_chars(digits, digits + sizeof digits, number).ptr);
        return *this;
    }
    Answer& operator<<(const Netz::IpGenAddr& addr) {
        char text[Netz::IpGenAddr::maxText];
        text_.append(text, addr.write(text));
        return *this;
    }
    void send(Vel::U32 fd) const { sendAnswer(fd, text_); }

  private:
    std::string text_;
};

}  // namespace Nav
