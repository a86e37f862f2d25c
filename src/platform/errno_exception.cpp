#include "platform/errno_exception.h"

#include <cstring>
#include <sstream>

ErrnoException::ErrnoException(int error_number, const char* text)
    : m_error_number(error_number) {
  std::ostringstream stream;
  if (text != nullptr) stream << text << ": ";
  const char* description = strerror(error_number);
  if (description != nullptr)
    stream << description;
  else
    stream.setstate(std::ios::badbit);  // nothing more is appended
  stream << " (" << error_number << ")";
  m_message = stream.str();
}

ErrnoException::ErrnoException(int error_number, const std::string& text)
    : ErrnoException(error_number, text.c_str()) {}
