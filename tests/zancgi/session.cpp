#include "session.h"

#include <zancgi/testing/scratch.h>

#include <filesystem>

SessionModule::SessionModule(const support::Machine& machine,
                             const std::string& root)
    : outer_(machine / root), inner_(root.empty() ? outer_ : "") {
  std::filesystem::copy_file(SESSION_MODULE, outer_ + "/session.so");
}

std::string SessionModule::Line(const std::string& deeds) const {
  return "session required " + inner_ + "/session.so record=" + inner_ +
         "/record " + deeds + "\n";
}

std::string SessionModule::Record() const {
  std::string record = zan_cgi::testing::ReadFile(outer_ + "/record");
  if (!record.empty()) record.pop_back();
  return record;
}
