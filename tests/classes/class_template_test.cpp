// Classes, templates and the double dispatch between them; the module's
// registrations; derivation handlers of a system and of its nodes.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "orvix/host/diagnostics.h"
#include "orvix/host/object_system.h"
#include "orvix/nodes/modification.h"
#include "orvix/nodes/module.h"
#include "orvix/nodes/node_system_class_impl.h"
#include "store/node_system_impl.h"

namespace orvix::nodes::test {
namespace {

std::string Message(const auto& result) {
  return result ? std::string("(ok)") : result.GetError().GetMessage();
}

// A module load for the length of a test.
struct LoadedModule {
  LoadedModule() { EXPECT_TRUE(LoadNodesModule()); }
  ~LoadedModule() { UnloadNodesModule(); }
};

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
    instantiateAsked.emplace_back(t ? t->GetId() : "null");
    return NodeSystemClassImpl::InstantiateImpl(context, t, arguments);
  }
};

// A template that makes a system with one input port per VALUE argument.
class PortsTemplate : public NodeTemplateBase {
 public:
  explicit PortsTemplate(std::string id, bool failing = false)
      : NodeTemplateBase(std::move(id), "1.0"), _failing(failing) {}
  std::string_view GetClassId() const override { return "net.orvix.test.portstemplate"; }

  Result<Ref<NodeSystem>> InstantiateImpl(const InstantiationContext& context,
                                          const Ref<TemplateArguments>& arguments) const override {
    if (_failing) return Error(ERROR_CLASS::ILLEGAL_ARGUMENT, "no such operator");
    ORVIX_TRY_ASSIGN(MutableRoot root, context.nodeSystemClass->CreateNodeSystem());
    NodeSystem& s = *root._system;
    ORVIX_TRY_ASSIGN(GNode inputs, s.GetPortList(root._root, PORT_DIR::INPUT));
    if (arguments) {
      std::vector<InternedId> ports;
      arguments->ForEach([&](InternedId port, TEMPLATE_ARGUMENT_KIND, const Data&) {
        ports.push_back(port);
        return true;
      });
      for (InternedId port : ports) {
        ORVIX_TRY(s.AddPort(inputs, port.GetString(), GNODE_FLAGS::NONE, nullptr));
      }
    }
    ORVIX_TRY_ASSIGN(Ref<NodeSystem> done, root.EndModification(nullptr, FINALIZE_FLAGS::CLEANUP));
    // What a template makes keeps the template and its arguments.
    auto* impl = static_cast<NodeSystemImpl*>(done.Get());
    impl->_template = Ref<NodeTemplate>(const_cast<PortsTemplate*>(this));
    impl->_templateArguments = arguments;
    return done;
  }

 private:
  bool _failing;
};

class Decorator : public NodeTemplateDecoratorBase {
 public:
  Decorator(std::string id, Ref<RefCounted> decorated)
      : NodeTemplateDecoratorBase(std::move(id), "1.0", std::move(decorated)) {}
};

TEST(Classes, ModuleRegistersItsClassesAndTakesThemAwayAtUnload) {
  {
    LoadedModule module;
    LoadedModule again;  // loads count
    EXPECT_TRUE(IsClassRegistered("net.orvix.node.nodesystemclass"));
    EXPECT_TRUE(ImplementsInterface("net.orvix.node.class.nodetemplatedecoratorbase",
                                    "net.orvix.interface.decorator"));
    Result<Ref<RefCounted>> cls = CreateObject("net.orvix.node.nodesystemclass");
    ASSERT_TRUE(cls);
    auto* nodeClass = dynamic_cast<NodeSystemClass*>(cls->Get());
    ASSERT_NE(nodeClass, nullptr);
    // How a client starts: create, end at once, and the system is empty and
    // finished.
    MutableRoot root = nodeClass->CreateNodeSystem().Value();
    Ref<NodeSystem> done = root.EndModification(nullptr, FINALIZE_FLAGS::CLEANUP).Value();
    EXPECT_TRUE(done->IsFinalized());
    EXPECT_EQ(done->GetChildRecordCount(done->GetRoot()).Value(), 2u);
    EXPECT_EQ(Message(CreateObject("net.orvix.node.class.nodetemplatebase")),
              "Class net.orvix.node.class.nodetemplatebase can't be instantiated.");
  }
  EXPECT_FALSE(IsClassRegistered("net.orvix.node.nodesystemclass"));
  EXPECT_EQ(Message(CreateObject("net.orvix.node.nodesystemclass")),
            "Class net.orvix.node.nodesystemclass is not registered.");
}

TEST(Classes, TheClassSeesTheDecoratorFirstThenTheDecoratedTemplate) {
  Ref<WatchingClass> cls = MakeRef<WatchingClass>();
  Ref<PortsTemplate> inner = MakeRef<PortsTemplate>("net.orvix.test.inner");
  Ref<Decorator> outer = MakeRef<Decorator>("net.orvix.test.outer", inner);

  EXPECT_TRUE(outer->Supports(cls.Get()).Value());
  EXPECT_EQ(cls->supportsAsked, (std::vector<std::string>{"net.orvix.test.outer",
                                                          "net.orvix.test.inner"}));
  cls->refuse = "net.orvix.test.inner";
  EXPECT_FALSE(outer->Supports(cls.Get()).Value());
  EXPECT_EQ(Message(outer->Supports(nullptr)), "Null object.");

  Ref<TemplateArguments> arguments = MakeRef<TemplateArguments>();
  ASSERT_TRUE(arguments->Set(InternedId::Get("x"), TEMPLATE_ARGUMENT_KIND::VALUE |
                                                       TEMPLATE_ARGUMENT_KIND::EXPLICIT,
                             Data(int64_t{1})));
  InstantiationContext context{cls, nullptr};
  Ref<NodeSystem> made = outer->Instantiate(context, arguments).Value();
  EXPECT_EQ(cls->instantiateAsked, (std::vector<std::string>{"net.orvix.test.outer",
                                                             "net.orvix.test.inner"}));
  EXPECT_TRUE(made->IsFinalized());
  EXPECT_TRUE(made->FindByPath(NodePath::Parse("<x").Value()));
  EXPECT_EQ(made->GetTemplate().Get(), inner.Get());
  EXPECT_EQ(made->GetTemplateArguments().Get(), arguments.Get());

  // A decorator of nothing usable.
  Ref<Decorator> empty = MakeRef<Decorator>("net.orvix.test.empty", Ref<RefCounted>());
  EXPECT_FALSE(empty->IsLocked());
  EXPECT_EQ(Message(empty->Instantiate(context, arguments)), "Null object.");
  EXPECT_EQ(Message(empty->Supports(cls.Get())), "Null object.");
}

TEST(Classes, AFailedInstantiationWritesTwoLinesAndHandsTheErrorBack) {
  Ref<NodeSystemClass> cls = CreateDefaultNodeSystemClass().Value();
  Ref<PortsTemplate> failing = MakeRef<PortsTemplate>("net.orvix.test.failing", true);
  CapturedOutput output;
  Result<Ref<NodeSystem>> made = failing->Instantiate({cls, nullptr}, nullptr);
  EXPECT_EQ(Message(made), "no such operator");
  EXPECT_EQ(output.Texts(OUTPUT_LEVEL::DIAGNOSTIC),
            (std::vector<std::string>{"NodeSystemClassImpl call to InstantiateImpl failed for "
                                      "(net.orvix.test.failing 1.0, net.orvix.test.portstemplate)",
                                      "no such operator"}));
  EXPECT_EQ(Message(cls->InstantiateImpl({cls, nullptr}, nullptr, nullptr)),
            "Node template is nullptr.");
}

TEST(Classes, TheDefaultClassAnswersAttributesFromTheRegistry) {
  Ref<NodeSystemClass> cls = CreateDefaultNodeSystemClass().Value();
  const InternedId id = InternedId::Get("net.orvix.test.attribute");
  EXPECT_EQ(cls->GetAttributeFlags(id), ATTRIBUTE_FLAGS::DIRECT);
  EXPECT_FALSE(cls->SupportsAttribute(nullptr));

  class MetaAttribute : public GraphAttribute {
   public:
    InternedId GetId() const override { return InternedId::Get("net.orvix.test.attribute"); }
    bool IsAffectedBy(InternedId other) const override { return other == GetId(); }
    ATTRIBUTE_FLAGS GetFlags() const override {
      return ATTRIBUTE_FLAGS::DIRECT | ATTRIBUTE_FLAGS::META;
    }
  };
  ASSERT_TRUE(RegisterEntry(ATTRIBUTE_REGISTRY_ID, id,
                            ObjectValue::Make(MakeRef<MetaAttribute>()).Value()));
  EXPECT_EQ(cls->GetAttributeFlags(id), ATTRIBUTE_FLAGS::DIRECT | ATTRIBUTE_FLAGS::META);
  EXPECT_TRUE(cls->SupportsAttribute(cls->GetDerivedAttribute(id).Get()));
  UnregisterEntry(ATTRIBUTE_REGISTRY_ID, id);
  EXPECT_FALSE(cls->GetDerivedAttribute(id));

  EXPECT_EQ(cls->GetTypeConversionFlags(GetDataType<int64_t>(), GetDataType<int64_t>()).Value(), 0u);
  EXPECT_EQ(cls->GetTypeConversionFlags(GetDataType<int64_t>(), GetDataType<double>()).Value(),
            0x400u);
  EXPECT_EQ(cls->ConvertValue(GetDataType<double>(), Data(int64_t{3})).Value(), Data(3.0));
  EXPECT_EQ(cls->ConvertValue(GetDataType<int64_t>(), Data()).Value(), Data(int64_t{0}));
  EXPECT_EQ(cls->ConvertValue(GetDataType<int32_t>(), Data(1e300)).Value(), Data(INT32_MAX));
  EXPECT_EQ(Message(cls->ConvertValue(nullptr, Data(int64_t{3}))), "Null object.");
  // A type that stands for a host number keeps its own name.
  DataTypeInfo info;
  info.id = "net.orvix.test.classes.level";
  info.storage = DATA_STORAGE::INT32;
  info.size = 4;
  const DataType* level = RegisterDataType(info).Value();
  EXPECT_EQ(cls->ConvertValue(level, Data(int64_t{2})).Value().GetType(), level);
}

TEST(Classes, HandlersOfTheSystemAndOfItsNodes) {
  Ref<NodeSystemClass> cls = CreateDefaultNodeSystemClass().Value();
  // A content system with a handler of its own.
  MutableRoot contentRoot = cls->CreateNodeSystem().Value();
  Ref<NodeSystemDerivationHandler> own = MakeRef<NodeSystemDerivationHandlerBase>();
  ASSERT_TRUE(contentRoot._system->SetDerivationHandler(own));
  EXPECT_EQ(Message(contentRoot._system->SetDerivationHandler(nullptr)),
            "Illegal argument: Condition handler not fulfilled. ");
  Ref<NodeSystem> content =
      contentRoot.EndModification(nullptr, FINALIZE_FLAGS::CLEANUP).Value();
  // A finished system that others hold is read without locks: no new handler.
  EXPECT_EQ(Message(content->SetDerivationHandler(own)),
            "More than one reference to node system .");
  contentRoot._system.Reset();

  MutableRoot root = cls->CreateNodeSystem().Value();
  NodeSystem& s = *root._system;
  ASSERT_TRUE(s.AddChild("n", content, nullptr));
  const Ref<NodeSystemDerivationHandler>& fallback = NodeSystemDerivationHandlerBase::GetDefault();
  EXPECT_EQ(s.GetDerivationHandler().Get(), fallback.Get());
  EXPECT_EQ(s.GetNodeDerivationHandler(NodePath::Parse("n<x").Value()).Value().Get(), own.Get());
  EXPECT_EQ(s.GetNodeDerivationHandler(NodePath::Parse("<x").Value()).Value().Get(),
            fallback.Get());
  EXPECT_FALSE(s.GetNodeTemplate(NodePath::Parse("n").Value()).Value());
}

}  // namespace
}  // namespace orvix::nodes::test
