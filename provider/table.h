// IMAPITable over rows that are made when they are asked for.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "provider/object.h"
#include "provider/property.h"

namespace provider {

// Where a table's rows come from. Immutable; any thread.
class RowSource {
 public:
  virtual ~RowSource() = default;
  virtual std::uint32_t Count() const = 0;
  // Row `number` < Count(). Never null: a row that cannot be read is a bag whose properties throw.
  virtual std::unique_ptr<PropertyBag> Row(std::uint32_t number) const = 0;
  // Columns of a table for which nobody set any, in stored types.
  virtual std::vector<vault::PropTag> DefaultColumns() const = 0;
};

// `flags`: those of the method that gives the table (MAPI_UNICODE).
Ref<IMAPITable> MakeTable(std::shared_ptr<const RowSource> rows, ULONG flags);

// Whether a row satisfies a restriction. Throws MAPI_E_TOO_COMPLEX for kinds and depths that are not supported.
bool Matches(const SRestriction& restriction, PropertyBag& row, ScratchArena& arena);

// A few properties that exist nowhere else: rows of profile and service tables.
class FixedProperties : public PropertyBag {
 public:
  explicit FixedProperties(std::shared_ptr<const std::vector<Value>> values) : values_(std::move(values)) {}
  std::optional<Value> Find(std::uint16_t id) override;
  void List(std::vector<vault::PropTag>& tags) override;

 private:
  std::shared_ptr<const std::vector<Value>> values_;
};
class FixedRows : public RowSource {
 public:
  explicit FixedRows(std::vector<vault::PropTag> columns) : columns_(std::move(columns)) {}
  void Add(std::vector<Value> row) { rows_.push_back(std::make_shared<const std::vector<Value>>(std::move(row))); }
  std::uint32_t Count() const override { return static_cast<std::uint32_t>(rows_.size()); }
  std::unique_ptr<PropertyBag> Row(std::uint32_t number) const override {
    return std::make_unique<FixedProperties>(rows_[number]);
  }
  std::vector<vault::PropTag> DefaultColumns() const override { return columns_; }

 private:
  std::vector<vault::PropTag> columns_;
  std::vector<std::shared_ptr<const std::vector<Value>>> rows_;
};

// A row that is damaged: it is listed, and each property answers with the damage.
class DamagedProperties : public PropertyBag {
 public:
  explicit DamagedProperties(vault::Error error) : error_(std::move(error)) {}
  std::optional<Value> Find(std::uint16_t) override { throw error_; }
  void List(std::vector<vault::PropTag>&) override {}

 private:
  vault::Error error_;
};

}  // namespace provider
