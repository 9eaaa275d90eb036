#pragma once

#include <cstddef>
#include <string>
#include <utility>

namespace kyr::host {

/// \brief The element classes of numeric arrays.
enum class NumericClass {
  Double,
  Single,
  Int8,
  UInt8,
  Int16,
  UInt16,
  Int32,
  UInt32,
  Int64,
  UInt64,
};

class HostArray;

/// \brief Owner of an array, or of none. Methods take and return these.
///
/// Movable, not copyable. Destroying the owner gives the array back to the host that made it.
class HostValue {
 public:
  HostValue() = default;
  explicit HostValue(HostArray* array) noexcept : array_(array) {}
  ~HostValue() { reset(); }
  HostValue(HostValue&& other) noexcept : array_(std::exchange(other.array_, nullptr)) {}
  HostValue& operator=(HostValue&& other) noexcept {
    if (this != &other) reset(std::exchange(other.array_, nullptr));
    return *this;
  }
  HostValue(const HostValue&) = delete;
  HostValue& operator=(const HostValue&) = delete;

  /// \brief The array, or null if there is none. This object still owns it.
  HostArray* get() const noexcept { return array_; }
  HostArray* operator->() const noexcept { return array_; }
  HostArray& operator*() const noexcept { return *array_; }
  explicit operator bool() const noexcept { return array_ != nullptr; }

  inline void reset(HostArray* array = nullptr) noexcept;

 private:
  HostArray* array_ = nullptr;
};

/// \brief A two-dimensional array of the host's scripting language: text, truth values, numbers or
/// structs.
///
/// A host implements it. Arrays are made by a HostClient.
class HostArray {
 public:
  /// \brief Whether there is no element.
  virtual bool isEmpty() const = 0;

  /// \brief Whether there is exactly one element, of any class.
  virtual bool isScalar() const = 0;

  /// \brief Whether this is text, of any length.
  virtual bool isCharVector() const = 0;

  /// \brief Whether this is a single truth value.
  virtual bool isLogicalScalar() const = 0;

  /// \brief Whether this is the single truth value true.
  virtual bool isLogicalScalarTrue() const = 0;

  /// \brief The single element, as a double.
  /// \throws std::exception  the host's, if this is no scalar or its element is no number
  virtual double scalar() const = 0;

  /// \brief The text of a char vector.
  /// \throws std::exception  the host's, if this is no text
  virtual std::u16string text() const = 0;

  /// \brief Field \p name of struct element \p element (from 0).
  /// \return null if there is no such field, or this is no struct; valid as long as this array is
  ///         not changed
  virtual const HostArray* field(std::size_t element, const std::string& name) const = 0;

  /// \brief Set field \p name of struct element \p element (from 0), which owns \p value from then
  /// on.
  /// \throws std::exception  the host's, if there is no such element or field
  virtual void setField(std::size_t element, const std::string& name, HostValue value) = 0;

  /// \brief The elements of a numeric array, column after column, to be written to.
  /// \throws std::exception  the host's, if this is no numeric array
  virtual void* numbers() = 0;

 protected:
  virtual ~HostArray() = default;

 private:
  friend class HostValue;
  // Deletes the array and gives its memory back.
  virtual void destroy() noexcept = 0;
};

inline void HostValue::reset(HostArray* array) noexcept {
  if (array_ != nullptr) array_->destroy();
  array_ = array;
}

}  // namespace kyr::host
