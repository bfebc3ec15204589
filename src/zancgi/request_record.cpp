#include "request_record.h"

#include <cstddef>
#include <map>
#include <string>

#include "map_filler.h"

namespace zan_cgi {

void RequestRecord::MakeParams() {
  std::map<std::string, std::string> made;
  MapFiller filler(made);
  for (const Form::Field& field : form.fields) {
    filler.Join(field.name, ", ", field.value);
  }
  for (std::size_t i = 0; i < form.uploads.size(); ++i) {
    filler.Join(form.uploads[i].field, ", ", form.keys[i]);
  }
  params.swap(made);
  owes_params = false;
}

}  // namespace zan_cgi
