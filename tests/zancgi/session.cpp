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
         "/told " + deeds + "\n";
}

std::string SessionModule::Told() const {
  std::string told = zan_cgi::testing::ReadFile(outer_ + "/told");
  if (!told.empty()) told.pop_back();
  return told;
}
