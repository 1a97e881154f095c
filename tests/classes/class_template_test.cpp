// Classes, templates and the double dispatch between them; the module's
// registrations; derivation handlers of a system and of its nodes.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "must.h"
#include "orvix/host/diagnostics.h"
#include "orvix/host/object_system.h"
#include "orvix/nodes/derivation_handler.h"
#include "orvix/nodes/modification.h"
#include "orvix/nodes/module.h"
#include "orvix/nodes/node_system_class_impl.h"
#include "orvix/nodes/node_system.h"

namespace orvix::nodes::test {
namespace {

constexpr std::string_view CLASS_ID = "net.orvix.node.nodesystemclass";

std::string Message(const auto& result) {
  return result ? std::string("(ok)") : result.GetError().GetMessage();
}

// A class that notes every template it is asked about, and may refuse.
class WatchingClass : public NodeSystemClassImpl {
 public:
  mutable std::vector<std::string> supportsAsked;
  std::vector<std::string> instantiateAsked;
  std::string refuse;

  Result<bool> SupportsTemplate(const NodeTemplate& t) const override {
    supportsAsked.emplace_back(t.GetId());
    if (t.GetId() == refuse) return false;
    return NodeSystemClassImpl::SupportsTemplate(t);
  }
  Result<Ref<NodeSystem>> InstantiateImpl(const InstantiationContext& context,
                                          const NodeTemplate* t,
                                          const Ref<TemplateArguments>& arguments) override {
    instantiateAsked.emplace_back(t->GetId());
    return NodeSystemClassImpl::InstantiateImpl(context, t, arguments);
  }
};

// A template that makes an empty system and stores itself on it, with its
// arguments and the repository of the context, as a template's product must;
// or fails.
class EmptyTemplate : public NodeTemplateBase {
 public:
  EmptyTemplate(std::string id, bool failing)
      : NodeTemplateBase(std::move(id), "1.0"), _failing(failing) {}
  std::string_view GetClassId() const override { return "net.orvix.test.emptytemplate"; }

  Result<Ref<NodeSystem>> InstantiateImpl(const InstantiationContext& context,
                                          const Ref<TemplateArguments>& arguments) const override {
    if (_failing) return Error(ERROR_CLASS::ILLEGAL_ARGUMENT, "no such operator");
    ORVIX_TRY_ASSIGN(MutableRoot root, context.nodeSystemClass->CreateNodeSystem());
    ORVIX_TRY(root._system->SetTemplate(this, arguments, context.repository));
    return root.EndModification(nullptr, FINALIZE_FLAGS::CLEANUP);
  }

 private:
  bool _failing;
};

NodePath P(std::string_view text) {
  return Must(NodePath::Parse(text));
}
InternedId Id(std::string_view text) {
  return InternedId::Get(text);
}

// The class of a client's node space, built on the published class: every
// system it finishes gets the output ">done" if it lacks one. It may also try
// what a borrowed root must not do, and note the answers.
class FinishingClass : public NodeSystemClassImpl {
 public:
  bool misbehave = false;
  std::vector<std::string> refused;

  Result<void> FinalizeModification(const MutableRoot& root, uint64_t beginStamp,
                                    FINALIZE_FLAGS flags, ChangeList* changeList) override {
    ORVIX_TRY(NodeSystemClassImpl::FinalizeModification(root, beginStamp, flags, changeList));
    if (!root.IsBorrowed()) return Error(ERROR_CLASS::UNEXPECTED, "an owning root");
    NodeSystem& s = *root._system;
    if (misbehave) {
      refused.push_back(Message(s.EndModification(nullptr, FINALIZE_FLAGS::NONE)));
      // A copy counts a reference of its own: the system is shared while it lives.
      MutableRoot copy = root;
      refused.push_back(Message(copy._system->SetValue(copy._root, Id("x"), Data(1), nullptr)));
      refused.push_back(Message(copy.EndModification(nullptr, FINALIZE_FLAGS::CLEANUP)));
    }
    if (s.FindByPath(P(">done"))) return Ok();
    ORVIX_TRY_ASSIGN(GNode outputs, s.GetPortList(root._root, PORT_DIR::OUTPUT));
    ORVIX_TRY(s.AddPort(outputs, "done", GNODE_FLAGS::NONE, nullptr));
    return Ok();
  }
};

// The class's edits pass the reference test through the borrowed root, are
// validated with the rest and are in the finished system, which the caller
// alone holds; what a borrowed root must not do is refused.
TEST(Classes, AClientClassEditsAsTheModificationEnds) {
  Ref<FinishingClass> cls = MakeRef<FinishingClass>();
  MutableRoot root = Must(cls->CreateNodeSystem());
  NodeSystem& s = *root._system;
  // The bracket that made the empty system ended through the class too.
  ASSERT_TRUE(s.Remove(s.FindByPath(P(">done")), nullptr));
  ASSERT_TRUE(
      s.AddPort(Must(s.GetPortList(root._root, PORT_DIR::INPUT)), "a", GNODE_FLAGS::NONE, nullptr));
  cls->misbehave = true;
  Result<Ref<NodeSystem>> ended = root.EndModification(nullptr, FINALIZE_FLAGS::CLEANUP);
  ASSERT_TRUE(ended) << Message(ended);
  const Ref<NodeSystem> done = Must(std::move(ended));
  const std::string endInside = "Illegal state: Condition !_finalizing not fulfilled. ";
  EXPECT_EQ(cls->refused, (std::vector<std::string>{
                              endInside, "More than one reference to node system .", endInside}));
  EXPECT_TRUE(done->HasSingleOwner());
  EXPECT_TRUE(done->IsFinalized());
  EXPECT_TRUE(done->FindByPath(P(">done")) && done->FindByPath(P("<a")));
}

// A template stores itself through the published operation; the owner is
// held weakly; the store is refused outside the bracket and on a shared
// system, whose message names the template; and the first modification
// drops all three, even with no edit after it.
TEST(Classes, ATemplateStoresItselfUntilTheFirstModification) {
  Ref<NodeSystemClass> cls = Must(CreateDefaultNodeSystemClass());
  Ref<EmptyTemplate> stored = MakeRef<EmptyTemplate>("net.orvix.test.stored", false);
  Ref<TemplateArguments> arguments = MakeRef<TemplateArguments>();
  ASSERT_TRUE(arguments->Set(Id("x"), TEMPLATE_ARGUMENT_KIND::VALUE, Data(int64_t{4})));
  Ref<RefCounted> repository = MakeRef<RefCounted>();
  Ref<NodeSystem> made = Must(stored->Instantiate({cls, repository}, arguments));
  EXPECT_TRUE(made->IsFinalized());
  EXPECT_EQ(made->GetTemplate().Get(), stored.Get());
  EXPECT_EQ(made->GetTemplateArguments().Get(), arguments.Get());
  EXPECT_EQ(made->GetTemplateOwner().Get(), repository.Get());

  EXPECT_EQ(Message(made->SetTemplate(nullptr, nullptr, nullptr)),
            "Node system modification not within BeginModification()/EndModification().");
  {
    const Ref<NodeSystem> second = made;
    EXPECT_EQ(Message(made->SetTemplate(nullptr, nullptr, nullptr)),
              "More than one reference to node system net.orvix.test.stored.");
  }
  // The system doesn't keep its repository alive.
  repository.Reset();
  EXPECT_FALSE(made->GetTemplateOwner());
  EXPECT_EQ(made->GetTemplate().Get(), stored.Get());

  MutableRoot edit = Must(BeginModification(made));
  NodeSystem& s = *edit._system;
  EXPECT_FALSE(s.GetTemplate() || s.GetTemplateArguments() || s.GetTemplateOwner());
  // Stored again in the bracket, a null template takes all three away.
  ASSERT_TRUE(s.SetTemplate(stored.Get(), arguments, cls));
  ASSERT_TRUE(s.SetTemplate(nullptr, arguments, cls));
  EXPECT_FALSE(s.GetTemplate() || s.GetTemplateArguments() || s.GetTemplateOwner());
}

TEST(Classes, TheModuleRegistersItsClassesUntilItsLastUnload) {
  ASSERT_TRUE(LoadNodesModule());
  ASSERT_TRUE(LoadNodesModule());
  UnloadNodesModule();
  EXPECT_TRUE(ImplementsInterface("net.orvix.node.class.nodetemplatedecoratorbase",
                                  "net.orvix.interface.decorator"));
  Result<Ref<RefCounted>> cls = CreateObject(CLASS_ID);
  ASSERT_TRUE(cls);
  EXPECT_TRUE(dynamic_cast<NodeSystemClass*>(cls->Get()));
  EXPECT_EQ(Message(CreateObject("net.orvix.node.class.nodetemplatebase")),
            "Class net.orvix.node.class.nodetemplatebase can't be instantiated.");
  UnloadNodesModule();
  EXPECT_FALSE(IsClassRegistered(CLASS_ID));
  EXPECT_EQ(Message(CreateObject(CLASS_ID)),
            "Class net.orvix.node.nodesystemclass is not registered.");
}

TEST(Classes, TheClassSeesTheDecoratorFirstThenTheDecoratedTemplate) {
  Ref<WatchingClass> cls = MakeRef<WatchingClass>();
  Ref<EmptyTemplate> inner = MakeRef<EmptyTemplate>("net.orvix.test.inner", false);
  Ref<NodeTemplateDecoratorBase> outer =
      MakeRef<NodeTemplateDecoratorBase>("net.orvix.test.outer", "1.0", inner);
  const std::vector<std::string> both{"net.orvix.test.outer", "net.orvix.test.inner"};

  EXPECT_TRUE(Must(outer->Supports(cls.Get())));
  EXPECT_EQ(cls->supportsAsked, both);
  cls->refuse = "net.orvix.test.inner";
  EXPECT_FALSE(Must(outer->Supports(cls.Get())));
  EXPECT_EQ(Message(outer->Supports(nullptr)), "Null object.");

  Ref<TemplateArguments> arguments = MakeRef<TemplateArguments>();
  Ref<NodeSystem> made = Must(outer->Instantiate({cls, nullptr}, arguments));
  EXPECT_EQ(cls->instantiateAsked, both);
  EXPECT_TRUE(made->IsFinalized());
  EXPECT_EQ(made->GetTemplate().Get(), inner.Get());
  EXPECT_EQ(made->GetTemplateArguments().Get(), arguments.Get());
}

TEST(Classes, AFailedInstantiationWritesTwoLinesAndHandsTheErrorBack) {
  Ref<NodeSystemClass> cls = Must(CreateDefaultNodeSystemClass());
  Ref<EmptyTemplate> failing = MakeRef<EmptyTemplate>("net.orvix.test.failing", true);
  CapturedOutput output;
  EXPECT_EQ(Message(failing->Instantiate({cls, nullptr}, nullptr)), "no such operator");
  EXPECT_EQ(output.Texts(OUTPUT_LEVEL::DIAGNOSTIC),
            (std::vector<std::string>{"NodeSystemClassImpl call to InstantiateImpl failed for "
                                      "(net.orvix.test.failing 1.0, net.orvix.test.emptytemplate)",
                                      "no such operator"}));
  EXPECT_EQ(Message(cls->InstantiateImpl({cls, nullptr}, nullptr, nullptr)),
            "Node template is nullptr.");
}

TEST(Classes, TheDefaultClassTakesAttributesFromTheRegistryAndConvertsNumbers) {
  Ref<NodeSystemClass> cls = Must(CreateDefaultNodeSystemClass());
  const InternedId id = InternedId::Get("net.orvix.test.attribute");
  class MetaAttribute : public GraphAttribute {
   public:
    InternedId GetId() const override { return InternedId::Get("net.orvix.test.attribute"); }
    bool IsAffectedBy(InternedId other) const override { return other == GetId(); }
    ATTRIBUTE_FLAGS GetFlags() const override {
      return ATTRIBUTE_FLAGS::DIRECT | ATTRIBUTE_FLAGS::META;
    }
  };
  EXPECT_EQ(cls->GetAttributeFlags(id), ATTRIBUTE_FLAGS::DIRECT);
  ASSERT_TRUE(
      RegisterEntry(ATTRIBUTE_REGISTRY_ID, id, Must(ObjectValue::Make(MakeRef<MetaAttribute>()))));
  EXPECT_EQ(cls->GetAttributeFlags(id), ATTRIBUTE_FLAGS::DIRECT | ATTRIBUTE_FLAGS::META);
  EXPECT_TRUE(cls->SupportsAttribute(cls->GetDerivedAttribute(id).Get()));
  UnregisterEntry(ATTRIBUTE_REGISTRY_ID, id);
  EXPECT_FALSE(cls->GetDerivedAttribute(id));

  EXPECT_EQ(Must(cls->ConvertValue(GetDataType<double>(), Data(int64_t{3}))), Data(3.0));
  EXPECT_EQ(Must(cls->ConvertValue(GetDataType<int64_t>(), Data())), Data(int64_t{0}));
  EXPECT_EQ(Must(cls->ConvertValue(GetDataType<int32_t>(), Data(1e300))), Data(INT32_MAX));
  // A type that stands for a host number keeps its own name.
  DataTypeInfo info;
  info.id = "net.orvix.test.classes.level";
  info.storage = DATA_STORAGE::INT32;
  info.size = 4;
  const DataType* level = Must(RegisterDataType(info));
  EXPECT_EQ(Must(cls->ConvertValue(level, Data(int64_t{2}))).GetType(), level);
}

TEST(Classes, TheHandlerOfANodeIsItsContentsOwn) {
  Ref<NodeSystemClass> cls = Must(CreateDefaultNodeSystemClass());
  MutableRoot contentRoot = Must(cls->CreateNodeSystem());
  Ref<NodeSystemDerivationHandler> own = MakeRef<NodeSystemDerivationHandlerBase>();
  ASSERT_TRUE(contentRoot._system->SetDerivationHandler(own));
  EXPECT_EQ(Message(contentRoot._system->SetDerivationHandler(nullptr)),
            "Illegal argument: Condition handler not fulfilled. ");
  Ref<NodeSystem> content = Must(contentRoot.EndModification(nullptr, FINALIZE_FLAGS::CLEANUP));
  // A finished system that others hold is read without locks: no new handler.
  {
    const Ref<NodeSystem> reader = content;
    EXPECT_EQ(Message(content->SetDerivationHandler(own)),
              "More than one reference to node system .");
  }

  MutableRoot root = Must(cls->CreateNodeSystem());
  ASSERT_TRUE(root._system->AddChild("n", content, nullptr));
  const NodeSystemDerivationHandler* fallback = NodeSystemDerivationHandlerBase::GetDefault().Get();
  EXPECT_EQ(root._system->GetDerivationHandler().Get(), fallback);
  EXPECT_EQ(Must(root._system->GetNodeDerivationHandler(Must(NodePath::Parse("n<x")))).Get(),
            own.Get());
  EXPECT_EQ(Must(root._system->GetNodeDerivationHandler(Must(NodePath::Parse("<x")))).Get(),
            fallback);
}

}  // namespace
}  // namespace orvix::nodes::test
