#include "form_contents.h"

#include <zancgi/form.h>
#include <zancgi/zancgi.h>

#include <cstddef>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "map_filler.h"

namespace zan_cgi {
namespace {

using Forms = std::map<const Cgi::Data*, FormContents>;

/// Those of all requests that have one; null as long as none has.
Forms* forms = nullptr;

}  // namespace

FormContents& AttachForm(const Cgi::Data& request) {
  if (forms == nullptr) forms = new Forms;
  return (*forms)[&request];
}

const FormContents& FormOf(const Cgi::Data& request) noexcept {
  return forms->find(&request)->second;
}

void PayParams(Cgi::Data& request) {
  if (forms == nullptr) return;
  const auto found = forms->find(&request);
  if (found == forms->end() || !found->second.owes_params) return;
  FormContents& form = found->second;
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
  forms->erase(&request);
  if (forms->empty()) delete std::exchange(forms, nullptr);
}

}  // namespace zan_cgi
