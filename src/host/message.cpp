// Message handler: formats printf-style messages and hands them to the
// installed sink.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <mutex>
#include <utility>

#include "lxopt/host.h"

namespace LxOpt {

LxErrorHandler LxThrow;

namespace {

std::mutex& SinkMutex() {
  static std::mutex mutex;
  return mutex;
}

LxMessageSink& InstalledSink() {
  static LxMessageSink sink;
  return sink;
}

void WriteToStandardError(LxMessageLevel level, const std::string& text) {
  std::cerr << "LxOpt " << LxMessageLevelName(level) << ": " << text;
  if (text.empty() || text.back() != '\n') std::cerr << '\n';
  std::cerr.flush();
}

std::string FormatMessage(const char* format, va_list args) {
  if (format == nullptr) return std::string();
  va_list copy;
  va_copy(copy, args);
  const int length = std::vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  if (length <= 0) return std::string();
  std::string text(static_cast<std::size_t>(length) + 1, '\0');
  std::vsnprintf(&text[0], text.size(), format, args);
  text.resize(static_cast<std::size_t>(length));
  return text;
}

void Deliver(LxMessageLevel level, const char* format, va_list args) {
  const std::string text = FormatMessage(format, args);
  LxMessageSink sink;
  {
    std::lock_guard<std::mutex> lock(SinkMutex());
    sink = InstalledSink();
  }
  if (sink) {
    sink(level, text);
  } else {
    WriteToStandardError(level, text);
  }
}

}  // namespace

const char* LxMessageLevelName(LxMessageLevel level) {
  switch (level) {
    case LxMessageLevel::Info:
      return "info";
    case LxMessageLevel::Warning:
      return "warning";
    case LxMessageLevel::Error:
      return "error";
    case LxMessageLevel::Fatal:
      return "fatal";
  }
  return "";
}

LxMessageSink LxSetMessageSink(LxMessageSink sink) {
  std::lock_guard<std::mutex> lock(SinkMutex());
  std::swap(InstalledSink(), sink);
  return sink;
}

void LxErrorHandler::Info(const char* format, ...) {
  va_list args;
  va_start(args, format);
  Deliver(LxMessageLevel::Info, format, args);
  va_end(args);
}

void LxErrorHandler::Warning(const char* format, ...) {
  va_list args;
  va_start(args, format);
  Deliver(LxMessageLevel::Warning, format, args);
  va_end(args);
}

void LxErrorHandler::Error(const char* format, ...) {
  va_list args;
  va_start(args, format);
  Deliver(LxMessageLevel::Error, format, args);
  va_end(args);
}

void LxErrorHandler::Fatal(const char* format, ...) {
  va_list args;
  va_start(args, format);
  Deliver(LxMessageLevel::Fatal, format, args);
  va_end(args);
  std::abort();
}

}  // namespace LxOpt
