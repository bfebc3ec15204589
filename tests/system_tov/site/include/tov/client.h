#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include <tov/site.h>

namespace tov_client {

/// A back end within: it answers with what it was sent.
class Protocol {
 public:
  /// What comes first in the table of virtual functions is not what comes first
  /// in ours.
  virtual const char* Kind() const { return "echo"; }
  virtual ~Protocol() = default;

  void SendEnv(const std::string& line);
  void RequestComplete();
  unsigned long GetAnswer(char* buffer, unsigned long size);

 private:
  site::Room room_;
  std::string sent_;
  std::string answer_;
  std::size_t taken_ = 0;
};

std::unique_ptr<Protocol> Connect(const std::string& name, bool again = true);

}  // namespace tov_client
