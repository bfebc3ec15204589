#include "form_contents.h"

#include <zancgi/form.h>
#include <zancgi/zancgi.h>

#include <algorithm>
#include <cstddef>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "map_filler.h"

namespace zan_cgi {
namespace {

/// The form of a request.
struct Entry {
  const Cgi::Data* request;
  FormContents form;
};

/// Few: a process mostly has one request.
using Forms = std::vector<std::unique_ptr<Entry>>;

/// Those of all requests that have one; null as long as none has.
Forms* forms = nullptr;

Forms::iterator Find(const Cgi::Data& request) {
  return std::find_if(forms->begin(), forms->end(), [&](const auto& entry) {
    return entry->request == &request;
  });
}

}  // namespace

FormContents& AttachForm(const Cgi::Data& request) {
  if (forms == nullptr) forms = new Forms;
  forms->push_back(std::make_unique<Entry>(Entry{&request, {}}));
  return forms->back()->form;
}

const FormContents& FormOf(const Cgi::Data& request) noexcept {
  return (*Find(request))->form;
}

void PayParams(Cgi::Data& request) {
  if (forms == nullptr) return;
  const auto found = Find(request);
  if (found == forms->end() || !(*found)->form.owes_params) return;
  FormContents& form = (*found)->form;
  std::map<std::string, std::string> params;
  MapFiller filler(params);
  for (const Form::Field& field : form.fields) {
    filler.Join(field.name, ", ", field.value);
  }
  for (std::size_t i = 0; i < form.uploads.size(); ++i) {
    filler.Join(form.uploads[i].field, ", ", form.keys[i]);
  }
  request.params.swap(params);
  form.owes_params = false;
}

void DetachForm(const Cgi::Data& request) noexcept {
  if (forms == nullptr) return;
  const auto found = Find(request);
  if (found != forms->end()) forms->erase(found);
  if (forms->empty()) delete std::exchange(forms, nullptr);
}

}  // namespace zan_cgi
