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

/// A list is enough: a process usually has one request.
using Forms = std::vector<std::unique_ptr<FormContents>>;

/// The forms of all requests that have one; null if there are none.
Forms* forms = nullptr;

Forms::iterator Find(const Cgi::Data& request) {
  return std::find_if(forms->begin(), forms->end(), [&](const auto& form) {
    return form->request == &request;
  });
}

}  // namespace

FormContents& AttachForm(const Cgi::Data& request) {
  if (forms == nullptr) forms = new Forms;
  forms->push_back(std::make_unique<FormContents>());
  forms->back()->request = &request;
  return *forms->back();
}

const FormContents& FormOf(const Cgi::Data& request) noexcept {
  return **Find(request);
}

void PayParams(Cgi::Data& request) {
  if (forms == nullptr) return;
  const auto found = Find(request);
  if (found == forms->end() || !(*found)->owes_params) return;
  FormContents& form = **found;
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
