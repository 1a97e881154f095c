#pragma once
// NodeTemplate: something a node can be made from. Given arguments, it yields
// a finished NodeSystem. A template is always instantiated through a
// NodeSystemClass: callers use Supports and Instantiate, which ask the class;
// the class calls SupportsImpl and InstantiateImpl of the template. So a class
// can refuse or decorate any template, and a template answers only for
// itself.

#include <functional>
#include <string>
#include <string_view>

#include "orvix/host/data.h"
#include "orvix/host/ref.h"
#include "orvix/host/result.h"
#include "orvix/nodes/template_arguments.h"

namespace orvix::nodes {

class NodeSystem;
class NodeSystemClass;

inline constexpr std::string_view NODE_TEMPLATE_BASE_CLASS_ID = "net.orvix.node.class.nodetemplatebase";
inline constexpr std::string_view NODE_TEMPLATE_DECORATOR_BASE_CLASS_ID =
    "net.orvix.node.class.nodetemplatedecoratorbase";

// What an instantiation runs in: the class that instantiates (the class of
// the new system) and the repository that bases are found in.
struct InstantiationContext {
  Ref<NodeSystemClass> nodeSystemClass;
  Ref<RefCounted> repository;
};

// Called with each variant of a template; its result is the walk's result.
using VariantDelegate = std::function<Result<Data>(const Data& variant)>;

class NodeTemplate : public RefCounted {
 public:
  // 0: whether systems of `cls` can be made from this template; asks the
  // class, which asks SupportsImpl.
  virtual Result<bool> Supports(const NodeSystemClass* cls) const = 0;
  // 1: a finished system made from this template with `arguments`; through
  // the class of the context, which calls InstantiateImpl.
  virtual Result<Ref<NodeSystem>> Instantiate(const InstantiationContext& context,
                                              const Ref<TemplateArguments>& arguments) const = 0;
  // 2: calls `delegate` with each variant of the template.
  virtual Result<Data> EnumerateVariants(const VariantDelegate& delegate) const = 0;
  // 3: the template's own answer to Supports.
  virtual Result<bool> SupportsImpl(const NodeSystemClass& cls) const = 0;
  // 4: the template's own instantiation: a finished system, validated and not
  // under modification, that keeps this template and its arguments.
  virtual Result<Ref<NodeSystem>> InstantiateImpl(const InstantiationContext& context,
                                                  const Ref<TemplateArguments>& arguments) const = 0;
  // 5: true if the nodes of systems made from it aren't to be edited.
  virtual bool IsLocked() const = 0;

  // The asset identity: id, version, and the id of the template's class.
  virtual std::string_view GetId() const = 0;
  virtual std::string_view GetVersion() const = 0;
  virtual std::string_view GetClassId() const = 0;

 protected:
  NodeTemplate() = default;
  ~NodeTemplate() override = default;
};

// The base of every template: the double dispatch, one variant, not locked.
// A concrete template implements InstantiateImpl.
class NodeTemplateBase : public NodeTemplate {
 public:
  NodeTemplateBase(std::string id, std::string version)
      : _id(std::move(id)), _version(std::move(version)) {}

  //   "Null object." for a null class.
  Result<bool> Supports(const NodeSystemClass* cls) const override;
  Result<Ref<NodeSystem>> Instantiate(const InstantiationContext& context,
                                      const Ref<TemplateArguments>& arguments) const override;
  // Calls the delegate once, with the empty value.
  Result<Data> EnumerateVariants(const VariantDelegate& delegate) const override;
  Result<bool> SupportsImpl(const NodeSystemClass& cls) const override;
  bool IsLocked() const override { return false; }
  std::string_view GetId() const override { return _id; }
  std::string_view GetVersion() const override { return _version; }
  std::string_view GetClassId() const override { return NODE_TEMPLATE_BASE_CLASS_ID; }

 private:
  std::string _id;
  std::string _version;
};

// A template that wraps another one. Its own implementation operations call
// the public ones of the template behind it, so that a class sees the
// decorator first and the decorated template second.
class NodeTemplateDecoratorBase : public NodeTemplateBase {
 public:
  NodeTemplateDecoratorBase(std::string id, std::string version, Ref<RefCounted> decorated)
      : NodeTemplateBase(std::move(id), std::move(version)), _decorated(std::move(decorated)) {}

  // The object behind the decorator, whatever it is.
  const Ref<RefCounted>& PrivateGetDecoratedObject() const { return _decorated; }

  //   "Null object." without a decorated template.
  Result<Data> EnumerateVariants(const VariantDelegate& delegate) const override;
  Result<bool> SupportsImpl(const NodeSystemClass& cls) const override;
  Result<Ref<NodeSystem>> InstantiateImpl(const InstantiationContext& context,
                                          const Ref<TemplateArguments>& arguments) const override;
  // False without a decorated template.
  bool IsLocked() const override;
  std::string_view GetClassId() const override { return NODE_TEMPLATE_DECORATOR_BASE_CLASS_ID; }

 private:
  // The decorated object as a template; null if it isn't one.
  const NodeTemplate* _Decorated() const;

  Ref<RefCounted> _decorated;
};

// One value that stands for what a node is made of: a finished system, or a
// template with its arguments.
struct NodeOrTemplate {
  Ref<NodeSystem> system;
  Ref<NodeTemplate> nodeTemplate;
  Ref<TemplateArguments> arguments;
};

}  // namespace orvix::nodes
