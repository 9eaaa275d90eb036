#include "Script.h"

#include <kyr/platform/Path.h>

#include <cstdlib>
#include <iomanip>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace {

using kyr::host::HostArray;
using kyr::host::HostValue;
using kyr::host::ReferenceHost;

HostValue valueOf(const ReferenceHost& host, const std::string& text) {
  if (text == "true" || text == "false") return host.createLogicalScalar(text == "true");
  char* end = nullptr;
  const double number = std::strtod(text.c_str(), &end);
  if (!text.empty() && *end == '\0') return host.createNumber(number);
  return host.createString(kyr::toUtf16(text));
}

// No argument if there are no fields.
HostValue structOf(const ReferenceHost& host, std::istream& words) {
  std::vector<std::string> names;
  std::vector<HostValue> values;
  for (std::string word; words >> word;) {
    const std::size_t equals = word.find('=');
    names.push_back(word.substr(0, equals));
    values.push_back(valueOf(host, equals == std::string::npos ? "" : word.substr(equals + 1)));
  }
  if (names.empty()) return {};
  HostValue argument = host.createStruct(1, 1, names);
  for (std::size_t i = 0; i < names.size(); ++i) {
    argument->setField(0, names[i], std::move(values[i]));
  }
  return argument;
}

std::string textOf(const HostArray& array) {
  if (array.isCharVector()) return kyr::toUtf8(array.text());
  if (array.isLogicalScalar()) return array.isLogicalScalarTrue() ? "true" : "false";
  std::ostringstream text;
  if (ReferenceHost::className(array) != "struct") {
    text << std::setprecision(15) << array.scalar();
    return text.str();
  }
  for (const std::string& name : ReferenceHost::fieldNames(array)) {
    text << (text.tellp() > 0 ? ", " : "") << name << ' ' << textOf(*array.field(0, name));
  }
  return text.str();
}

}  // namespace

void runScript(ReferenceHost& host, std::istream& script, std::ostream& out) {
  for (std::string line; std::getline(script, line);) {
    std::istringstream words(line);
    std::string method;
    if (!(words >> method) || method[0] == '#') continue;
    const HostValue result = host.invoke(method, structOf(host, words));
    out << method << ": " << textOf(*result) << '\n';
  }
}
