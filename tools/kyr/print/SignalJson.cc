#include "print/SignalJson.h"

#include "print/TypeNames.h"

namespace kyr::tool {

nlohmann::ordered_json signalJson(const recording::SignalInfo& signal) {
  return {{"id", signal.signalId},
          {"name", signal.name},
          {"unit", signal.unit},
          {"description", signal.description},
          {"type", typeName(signal.dataType)},
          {"category", categoryName(signal.category)},
          {"dimensions", signal.dimensions}};
}

}  // namespace kyr::tool
