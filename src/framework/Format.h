// printf-style formatting into strings whose memory is used again.
#pragma once

#include <cstdarg>
#include <string>

namespace drovane {

// Formats into `text`, whose old content goes. A format that the C library refuses gives "".
void formatInto(std::string& text, const char* fmt, va_list args)
    __attribute__((format(printf, 2, 0)));

}  // namespace drovane
