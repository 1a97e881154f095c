#include "orvix/host/data_accessor.h"

namespace orvix {

namespace {
class SubDataAccessor final : public DataAccessor {
 public:
  explicit SubDataAccessor(bool whole) : _whole(whole) {}
  Result<bool> SetPart(Data& whole, std::span<const Data> keys, const Data& value,
                       Data* oldPart) const override {
    if (_whole && !keys.empty()) {
      return ConditionError(CONDITION_KIND::ILLEGAL_ARGUMENT, "keys.empty()");
    }
    return whole.SetSubData(keys, value, oldPart);
  }
  bool IsWholeValue() const override { return _whole; }

 private:
  bool _whole;
};
}  // namespace

const DataAccessor& GetWholeValueAccessor() {
  static const Ref<SubDataAccessor> accessor = MakeRef<SubDataAccessor>(true);
  return *accessor;
}

const DataAccessor& GetSubDataAccessor() {
  static const Ref<SubDataAccessor> accessor = MakeRef<SubDataAccessor>(false);
  return *accessor;
}

}  // namespace orvix
