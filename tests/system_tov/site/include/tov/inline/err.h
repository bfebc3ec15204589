#include <tov/site.h>

namespace tov_err {

SITE_FUNCTION Value::Value(const std::string& name, const std::string& value)
    : Error("site: bad " + name + " [" + value + "]") {}
SITE_FUNCTION Value::~Value() = default;

SITE_FUNCTION Missed::Missed(const std::string& name, const std::string& value)
    : Error("site: no " + name + " [" + value + "]") {}
SITE_FUNCTION Missed::~Missed() = default;

}  // namespace tov_err
