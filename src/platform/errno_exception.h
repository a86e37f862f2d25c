#pragma once

#include <exception>
#include <string>

// Thrown when a system call fails. The message reads
// "<text>: <strerror text> (<number>)", or without "<text>: " when no text
// is given.
class ErrnoException : public std::exception {
 public:
  explicit ErrnoException(int error_number, const char* text = nullptr);
  ErrnoException(int error_number, const std::string& text);

  const char* what() const noexcept override { return m_message.c_str(); }
  int ErrorNumber() const noexcept { return m_error_number; }

 private:
  std::string m_message;
  int m_error_number;
};
