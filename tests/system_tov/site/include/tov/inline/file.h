#include <tov/site.h>

namespace tov_file {

SITE_FUNCTION Attrs::Attrs(int mode) : mode_(mode), owner_(~0U), group_(~0U) {}
SITE_FUNCTION Attrs::Attrs(int mode, unsigned owner, unsigned group)
    : mode_(mode), owner_(owner), group_(group) {}

SITE_FUNCTION bool Info::IsDir() const { return is_dir_; }

SITE_FUNCTION const std::string& Tmp::Name() const { return name_; }

}  // namespace tov_file
