// lxout: the progress stream, a thin forwarder to a replaceable std::ostream.
#include <atomic>
#include <iostream>

#include "lxopt/host.h"

namespace LxOpt {

lxostream lxout;

namespace {

std::atomic<std::ostream*>& Target() {
  static std::atomic<std::ostream*> target{nullptr};
  return target;
}

std::ostream& Out() {
  std::ostream* target = Target().load();
  return target != nullptr ? *target : std::cout;
}

}  // namespace

std::ostream* LxSetOutputStream(std::ostream* target) {
  std::ostream* previous = Target().exchange(target);
  return previous != nullptr ? previous : &std::cout;
}

lxostream& lxostream::operator<<(const char* text) {
  if (text != nullptr) Out() << text;
  return *this;
}
lxostream& lxostream::operator<<(const std::string& text) {
  Out() << text;
  return *this;
}
lxostream& lxostream::operator<<(char c) {
  Out() << c;
  return *this;
}
lxostream& lxostream::operator<<(int value) {
  Out() << value;
  return *this;
}
lxostream& lxostream::operator<<(unsigned int value) {
  Out() << value;
  return *this;
}
lxostream& lxostream::operator<<(long value) {
  Out() << value;
  return *this;
}
lxostream& lxostream::operator<<(unsigned long value) {
  Out() << value;
  return *this;
}
lxostream& lxostream::operator<<(long long value) {
  Out() << value;
  return *this;
}
lxostream& lxostream::operator<<(unsigned long long value) {
  Out() << value;
  return *this;
}
lxostream& lxostream::operator<<(double value) {
  Out() << value;
  return *this;
}
lxostream& lxostream::operator<<(lxostream& (*manipulator)(lxostream&)) {
  return manipulator(*this);
}
void lxostream::flush() {
  Out().flush();
}

lxostream& lxendl(lxostream& stream) {
  stream << '\n';
  stream.flush();
  return stream;
}

}  // namespace LxOpt
