#pragma once
// DataAccessor: writes one part of a structured value, named by a block of
// keys. Editors change a single element of an array or an entry of a
// dictionary through it without building the whole value again, and the
// change can be recorded and undone as the part alone.

#include <span>

#include "orvix/host/data.h"
#include "orvix/host/ref.h"
#include "orvix/host/result.h"

namespace orvix {

class DataAccessor : public RefCounted {
 public:
  // Sets the part of `whole` that `keys` name to `value`. With `oldPart`,
  // hands back what the part held before. The result says whether the value
  // changed.
  virtual Result<bool> SetPart(Data& whole, std::span<const Data> keys, const Data& value,
                               Data* oldPart) const = 0;
  // True for the accessor that stands for the whole value: with no keys a
  // write through it is a plain write of the value.
  virtual bool IsWholeValue() const { return false; }

 protected:
  DataAccessor() = default;
  ~DataAccessor() override = default;
};

// The accessor of the whole value, and the one of nested parts by key: an
// Int key indexes an array, any other key names a dictionary entry.
const DataAccessor& GetWholeValueAccessor();
const DataAccessor& GetSubDataAccessor();

}  // namespace orvix
