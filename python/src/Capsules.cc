#include "Capsules.h"

#include <stdexcept>
#include <string>

namespace kyr::python {

namespace {

constexpr const char* kStream = "arrow_array_stream";
constexpr const char* kSchema = "arrow_schema";

// Whoever takes a structure out of its capsule marks it as released.
template <typename Structure>
nanobind::capsule capsuleOf(std::unique_ptr<Structure> structure, const char* name) {
  const auto clean = [](void* pointer) noexcept {
    const std::unique_ptr<Structure> owned(static_cast<Structure*>(pointer));
    if (owned->release != nullptr) owned->release(owned.get());
  };
  nanobind::capsule capsule(structure.get(), name, clean);
  static_cast<void>(structure.release());
  return capsule;
}

}  // namespace

nanobind::capsule streamCapsule(std::unique_ptr<ArrowArrayStream> stream) {
  return capsuleOf(std::move(stream), kStream);
}

nanobind::capsule schemaCapsule(const nanobind::capsule& stream) {
  auto* const source = static_cast<ArrowArrayStream*>(stream.data(kStream));
  auto schema = std::make_unique<ArrowSchema>();
  schema->release = nullptr;
  if (source->get_schema(source, schema.get()) != 0) {
    const char* const reason = source->get_last_error(source);
    throw std::runtime_error(std::string("no Arrow schema: ") + (reason ? reason : "unknown"));
  }
  return capsuleOf(std::move(schema), kSchema);
}

}  // namespace kyr::python
