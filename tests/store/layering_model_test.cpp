// Random sequences of writes, removals, copies and compactions, checked
// against a reference model: a plain map per live system. Every lookup in every
// live copy must answer as the model does, a copy taken earlier never sees
// later writes, and a record written in a copy comes up whole.

#include <map>
#include <random>

#include "orvix/host/diagnostics.h"
#include "store_test_support.h"

namespace orvix::nodes::test {
namespace {

struct Live {
  Ref<NodeSystemImpl> system;
  // Path text -> the payload its record carries; absent paths are missing.
  std::map<std::string, uint64_t> model;
  // Handles taken at random moments, refreshed and compared at each check.
  std::map<std::string, GNode> handles;
};

// The payload rides in the record's attribute table, which the store carries
// along with the record through copies up and compactions. A write puts a new
// table in: the old one may be shared with the record of a lower layer.
uint64_t Payload(const NodeInfo* info) {
  static const InternedId id = Id("payload");
  const AttributeRecord* record = info->attributes ? info->attributes->records.Find(id) : nullptr;
  return record ? uint64_t(Must(record->value.Get<int64_t>())) : 0;
}

void SetPayload(NodeInfo* info, uint64_t payload) {
  Ref<AttributeTable> table = MakeRef<AttributeTable>();
  table->records.FindOrInsert(Id("payload")).value = Data(int64_t(payload));
  info->attributes = std::move(table);
}

void Check(std::vector<Live>& lives, const std::vector<std::string>& pool, int step) {
  SCOPED_TRACE("step " + std::to_string(step));
  for (Live& live : lives) {
    for (const std::string& text : pool) {
      const FoundNode found = live.system->FindNode(P(text));
      auto it = live.model.find(text);
      ASSERT_EQ(bool(found), it != live.model.end()) << text;
      if (found) {
        EXPECT_EQ(found.system, live.system.Get());
        EXPECT_EQ(Payload(found.info), it->second) << text;
      }
    }
    EXPECT_EQ(live.system->GetVisibleRecordCount(), live.model.size() + 3);
    // A refreshed handle agrees with a fresh lookup.
    for (auto it = live.handles.begin(); it != live.handles.end();) {
      live.system->Refresh(it->second);
      EXPECT_EQ(it->second.info, live.system->FindNode(P(it->first)).info) << it->first;
      it = it->second.info ? std::next(it) : live.handles.erase(it);
    }
  }
}

TEST(LayeringModel, RandomWritesRemovalsCopiesAndCompactions) {
  // Paths of every kind; the map itself doesn't care about the tree shape.
  std::vector<std::string> pool;
  for (int i = 0; i < 12; ++i) pool.push_back("n" + std::to_string(i));
  for (int i = 0; i < 6; ++i) pool.push_back("n" + std::to_string(i) + "/k");
  for (int i = 0; i < 6; ++i) pool.push_back("<p" + std::to_string(i));
  for (int i = 0; i < 4; ++i) pool.push_back("n" + std::to_string(i) + ">q/r");
  std::mt19937_64 random(20261122);
  std::vector<Live> lives(1);
  lives[0].system = Empty();
  uint64_t nextPayload = 1;
  size_t compactions = 0;
  CapturedOutput output;

  for (int step = 0; step < 4000; ++step) {
    Live& live = lives[random() % lives.size()];
    NodeSystemImpl& system = *live.system;
    const std::string& text = pool[random() % pool.size()];
    const int op = int(random() % 100);
    if (op < 45) {
      // Write: the record fetched for writing carries what it carried below.
      GNode handle(P(text));
      NodeInfo* info = Must(system.GetMutable(handle, NODE_KIND::NONE));
      EXPECT_EQ(Payload(info), live.model.contains(text) ? live.model[text] : 0) << text;
      SetPayload(info, nextPayload);
      live.model[text] = nextPayload++;
    } else if (op < 70) {
      const bool removed = Must(system.RemoveEntry(P(text)));
      EXPECT_EQ(removed, live.model.erase(text) == 1) << "step " << step << " " << text;
    } else if (op < 82) {
      if (lives.size() < 10) lives.push_back({Copy(system), live.model, {}});
    } else if (op < 88) {
      if (lives.size() > 1) lives.erase(lives.begin() + long(random() % lives.size()));
    } else if (op < 94) {
      const uint32_t depth = system.GetDepth();
      ASSERT_TRUE(system.Compact());
      const bool deep = depth >= NodeSystemImpl::COMPACT_DEPTH;
      EXPECT_EQ(system.GetDepth(), deep ? 1u : depth);
      compactions += deep;
    } else {
      live.handles[text] = system.MakeHandle(P(text));
    }
    if (step % 10 == 0) {
      Check(lives, pool, step);
      if (::testing::Test::HasFatalFailure()) return;
    }
  }
  Check(lives, pool, 4000);
  EXPECT_GT(compactions, 3u);  // the sequence must reach deep maps
  EXPECT_TRUE(output.Lines().empty());
}

}  // namespace
}  // namespace orvix::nodes::test
