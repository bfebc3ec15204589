/// @file
/// Private: fills the parameters of a request.
#ifndef ZANCGI_MAP_FILLER_H
#define ZANCGI_MAP_FILLER_H

#include <cstddef>
#include <iterator>
#include <map>
#include <string>
#include <utility>

namespace zan_cgi {

/// Fills a map from a request. Large forms usually arrive sorted by name, so
/// the previous entry is the hint for the next one.
class MapFiller {
 public:
  using Map = std::map<std::string, std::string>;

  /// The value of a name. Its address is valid as long as the map.
  struct Place {
    std::string* value;
    bool is_new;
  };

  /// @param map  no entry may be removed while this object is in use
  explicit MapFiller(Map& map) : map_(map), last_(map.end()) {}

  /// Returns the value of a name. A new name gets the given value, or an empty
  /// one; if memory runs out, it is not inserted.
  template <class... Value>
  Place FindOrInsert(const std::string& name, const Value&... value) {
    const std::size_t size = map_.size();
    const auto hint = last_ == map_.end() ? last_ : std::next(last_);
    last_ = map_.try_emplace(hint, name, value...);
    return {&last_->second, map_.size() != size};
  }

  /// Adds a value, or joins it to the existing one. Appends in place: if a name
  /// comes a hundred thousand times, its value must not be copied as often.
  void Join(const std::string& name, const char* glue,
            const std::string& value) {
    const Place place = FindOrInsert(name, value);
    if (!place.is_new) place.value->append(glue).append(value);
  }

  /// Adds a value, or replaces the existing one.
  void Set(const std::string& name, std::string value) {
    *FindOrInsert(name).value = std::move(value);
  }

 private:
  Map& map_;
  Map::iterator last_;  ///< The entry of the last value.
};

}  // namespace zan_cgi

#endif
