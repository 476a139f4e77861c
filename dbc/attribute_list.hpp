// The attribute assignments of one message or signal, in file order. Few objects have any,
// so the record holds one pointer and the list exists only once something is assigned.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace veltrix::dbc {

// An attribute assigned to one message or signal: the definition it assigns (its position
// in the database's definition list, whose name, types, range and enumeration every
// assignment shares) and the value given to this object, quotes kept. The database's
// attributeCopy() gives the full record, as a definition with this value.
struct DBC_ATTRIBUTE_VALUE {
  uint32_t definition = 0;
  std::string value;
};

class AttributeList {
 public:
  AttributeList() = default;
  AttributeList(const AttributeList& other)
      : items_(other.items_ ? std::make_unique<Items>(*other.items_) : nullptr) {}
  AttributeList& operator=(const AttributeList& other) {
    if (this != &other) *this = AttributeList(other);
    return *this;
  }
  AttributeList(AttributeList&&) noexcept = default;
  AttributeList& operator=(AttributeList&&) noexcept = default;

  void push_back(DBC_ATTRIBUTE_VALUE assigned) {
    if (!items_) items_ = std::make_unique<Items>();
    items_->push_back(std::move(assigned));
  }
  // Gives back the room the list grew beyond its entries; called once the file is read.
  void shrink_to_fit() {
    if (items_) items_->shrink_to_fit();
  }

  size_t size() const { return items_ ? items_->size() : 0; }
  bool empty() const { return size() == 0; }
  const DBC_ATTRIBUTE_VALUE& operator[](size_t i) const { return (*items_)[i]; }
  const DBC_ATTRIBUTE_VALUE* begin() const { return items_ ? items_->data() : nullptr; }
  const DBC_ATTRIBUTE_VALUE* end() const {
    return items_ ? items_->data() + items_->size() : nullptr;
  }

 private:
  using Items = std::vector<DBC_ATTRIBUTE_VALUE>;
  std::unique_ptr<Items> items_;
};

}  // namespace veltrix::dbc
