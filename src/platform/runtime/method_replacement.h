// ZRBMethodReplacement: replaceable implementations of the operations the library interposes on.
//
// An operation that others may take over (constructing a session, resuming a task...) calls its
// implementation through a ZRBReplaceableSlot instead of directly. Replacing the implementation
// takes a factory that receives the current implementation and returns the new one, so the new one
// can call the one it replaced (and replacements chain). Slots are found by type (the owning class
// exposes its slot) or by class and operation name through the registry, for code that only knows
// the names (the pinning proxies).
//
// Thread-safety: call() may run on any thread while another thread replaces the implementation;
// a call runs either the old or the new implementation, never a mix. Replacements are serialized.
//
// Load time: a slot registers itself when it is constructed. A replacement requested by name for a
// slot that does not exist yet (static objects of other files are constructed in an unspecified
// order) is kept and applied, in request order, when the slot registers.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <typeindex>
#include <typeinfo>
#include <utility>
#include <vector>

#include "platform/foundation/assert.h"
#include "platform/foundation/error.h"
#include "platform/foundation/value.h"
#include "platform/runtime/dispatch.h"

enum class ZRBMethodKind { Instance, Class };

// Names an operation as the platform names a method: class, kind, selector.
struct ZRBMethodName {
  std::string_view className;
  ZRBMethodKind kind;
  std::string_view selector;
};

// The part of a slot the registry sees.
class ZRBReplaceableSlotBase {
 public:
  ZRBReplaceableSlotBase(const ZRBReplaceableSlotBase&) = delete;
  ZRBReplaceableSlotBase& operator=(const ZRBReplaceableSlotBase&) = delete;
  virtual ~ZRBReplaceableSlotBase() = default;

  const std::string& className() const { return className_; }
  ZRBMethodKind kind() const { return kind_; }
  const std::string& selector() const { return selector_; }
  std::type_index signature() const { return signature_; }
  // "+[ZRBURLSession sessionWithConfiguration:delegate:delegateQueue:]".
  std::string displayName() const;

  // Back to the original implementation (tests).
  virtual void reset() = 0;
  virtual bool isReplaced() const = 0;

 protected:
  ZRBReplaceableSlotBase(std::string className, ZRBMethodKind kind, std::string selector,
                         std::type_index signature)
      : className_(std::move(className)),
        kind_(kind),
        selector_(std::move(selector)),
        signature_(signature) {}
  // Called by the derived constructor once the slot is usable, and by its destructor.
  void registerSlot();
  void unregisterSlot();

 private:
  std::string className_;
  ZRBMethodKind kind_;
  std::string selector_;
  std::type_index signature_;
};

template <typename Signature>
class ZRBReplaceableSlot;

template <typename R, typename... Args>
class ZRBReplaceableSlot<R(Args...)> final : public ZRBReplaceableSlotBase {
 public:
  using Function = std::function<R(Args...)>;
  // Receives the implementation in place (never empty) and returns the one to install.
  using Factory = std::function<Function(Function previous)>;

  ZRBReplaceableSlot(std::string className, ZRBMethodKind kind, std::string selector, Function original)
      : ZRBReplaceableSlotBase(std::move(className), kind, std::move(selector), typeid(R(Args...))),
        original_(keep(std::move(original))),
        current_(original_) {
    registerSlot();
  }
  ZRBReplaceableSlot(const ZRBMethodName& name, Function original)
      : ZRBReplaceableSlot(std::string(name.className), name.kind, std::string(name.selector),
                           std::move(original)) {}
  ~ZRBReplaceableSlot() override { unregisterSlot(); }

  R call(Args... args) const { return (*load())(std::forward<Args>(args)...); }

  Function current() const { return *load(); }

  // An empty function from the factory is an assertion failure and leaves the slot unchanged.
  void replace(const Factory& factory) {
    std::lock_guard lock(replacing_);
    Function next = factory(*load());
    ZRBAssertNamed(static_cast<bool>(next), "replacement implementation");
    if (!next) return;
    current_.store(keep(std::move(next)), std::memory_order_release);
  }

  void reset() override {
    std::lock_guard lock(replacing_);
    current_.store(original_, std::memory_order_release);
  }

  bool isReplaced() const override { return load() != original_; }

 private:
  // Every implementation ever installed stays until the slot goes, so a caller runs the one it
  // loaded without taking a reference or a lock (the slots sit on per-request paths). Replacing
  // is rare, at load time or in tests, so what is kept stays small.
  const Function* keep(Function function) {
    installed_.push_back(std::make_unique<const Function>(std::move(function)));
    return installed_.back().get();
  }
  const Function* load() const { return current_.load(std::memory_order_acquire); }

  std::vector<std::unique_ptr<const Function>> installed_;  // changed under replacing_ only
  const Function* original_;
  std::atomic<const Function*> current_;
  std::mutex replacing_;  // serializes replace() and reset()
};

namespace zrb_detail {
// Runs `apply` on the named slot when it is registered with `signature`; keeps it for the slot's
// registration when it is not registered yet. False when the slot exists with another signature.
bool applyOrQueueReplacement(const ZRBMethodName& name, std::type_index signature,
                             std::function<void(ZRBReplaceableSlotBase&)> apply);
}  // namespace zrb_detail

class ZRBMethodReplacement {
 public:
  // Replaces the implementation of the named operation, now or as soon as its slot exists. False
  // (and nothing replaced) when the slot exists with another signature. The factory runs under the
  // registry's lock and must not use the registry itself.
  template <typename Signature>
  static bool replace(const ZRBMethodName& name, typename ZRBReplaceableSlot<Signature>::Factory factory) {
    return zrb_detail::applyOrQueueReplacement(
        name, typeid(Signature), [factory = std::move(factory)](ZRBReplaceableSlotBase& slot) {
          static_cast<ZRBReplaceableSlot<Signature>&>(slot).replace(factory);
        });
  }

  // The registered slot, or null.
  static ZRBReplaceableSlotBase* find(const ZRBMethodName& name);
  template <typename Signature>
  static ZRBReplaceableSlot<Signature>* find(const ZRBMethodName& name) {
    ZRBReplaceableSlotBase* slot = find(name);
    if (!slot || slot->signature() != std::type_index(typeid(Signature))) return nullptr;
    return static_cast<ZRBReplaceableSlot<Signature>*>(slot);
  }

  // Resets every registered slot and forgets replacements still waiting for their slot (tests).
  static void resetAll();
};

// Runs a function when the library (or program) that contains it is loaded, before main and before
// any caller: declare one at namespace scope,
//   static ZRBLoadTimeRegistrar registrar("session task observation", [] { ... });
// An exception escaping the function is reported on standard error and swallowed, so a failing
// initialiser cannot abort the loading program.
class ZRBLoadTimeRegistrar {
 public:
  ZRBLoadTimeRegistrar(const char* name, void (*initializer)());
  ZRBLoadTimeRegistrar(const ZRBLoadTimeRegistrar&) = delete;
  ZRBLoadTimeRegistrar& operator=(const ZRBLoadTimeRegistrar&) = delete;

  // Names of the initialisers that have run, in order.
  static std::vector<std::string> ranInitializers();
};

// ---- the operations that the library interposes on ----
//
// The owning classes are written elsewhere; each defines its slot with these names and types
// (e.g. a function-local static ZRBURLSessionTaskStateSlot in ZRBURLSessionTask) and routes the
// operation through call(). Subclasses share their base class's slot: an override of the
// operation's implementation runs as the slot's original, so one replacement covers every class.

class ZRBURLSession;
class ZRBURLSessionConfiguration;
class ZRBURLSessionDelegate;
class ZRBURLSessionTask;
class ZRBURLConnection;
class ZRBURLConnectionDelegate;
class ZRBURLRequest;
class ZRBURLResponse;

inline constexpr ZRBMethodName ZRBURLSessionConstructionMethod{
    "ZRBURLSession", ZRBMethodKind::Class, "sessionWithConfiguration:delegate:delegateQueue:"};
inline constexpr ZRBMethodName ZRBURLSessionTaskResumeMethod{"ZRBURLSessionTask", ZRBMethodKind::Instance,
                                                             "resume"};
inline constexpr ZRBMethodName ZRBURLSessionTaskSuspendMethod{"ZRBURLSessionTask", ZRBMethodKind::Instance,
                                                              "suspend"};
inline constexpr ZRBMethodName ZRBURLConnectionInitMethod{"ZRBURLConnection", ZRBMethodKind::Instance,
                                                          "initWithRequest:delegate:"};
inline constexpr ZRBMethodName ZRBURLConnectionInitStartImmediatelyMethod{
    "ZRBURLConnection", ZRBMethodKind::Instance, "initWithRequest:delegate:startImmediately:"};
inline constexpr ZRBMethodName ZRBURLConnectionSendAsynchronousMethod{
    "ZRBURLConnection", ZRBMethodKind::Class, "sendAsynchronousRequest:queue:completionHandler:"};
inline constexpr ZRBMethodName ZRBURLConnectionSendSynchronousMethod{
    "ZRBURLConnection", ZRBMethodKind::Class, "sendSynchronousRequest:returningResponse:error:"};

// (configuration, delegate or null, delegate queue or null) -> the new session.
using ZRBURLSessionConstructionSlot = ZRBReplaceableSlot<std::shared_ptr<ZRBURLSession>(
    std::shared_ptr<ZRBURLSessionConfiguration> configuration,
    std::shared_ptr<ZRBURLSessionDelegate> delegate, ZRBDispatchQueuePtr delegateQueue)>;
// resume and suspend of a task.
using ZRBURLSessionTaskStateSlot = ZRBReplaceableSlot<void(ZRBURLSessionTask& task)>;
// (request, delegate) -> the connection, started.
using ZRBURLConnectionInitSlot = ZRBReplaceableSlot<std::shared_ptr<ZRBURLConnection>(
    std::shared_ptr<ZRBURLRequest> request, std::shared_ptr<ZRBURLConnectionDelegate> delegate)>;
// (request, delegate, start immediately) -> the connection.
using ZRBURLConnectionInitStartImmediatelySlot = ZRBReplaceableSlot<std::shared_ptr<ZRBURLConnection>(
    std::shared_ptr<ZRBURLRequest> request, std::shared_ptr<ZRBURLConnectionDelegate> delegate,
    bool startImmediately)>;
using ZRBURLConnectionCompletionHandler =
    std::function<void(std::shared_ptr<const ZRBURLResponse> response, ZRBValue data, ZRBErrorPtr error)>;
// (request, queue of the handler, handler).
using ZRBURLConnectionSendAsynchronousSlot =
    ZRBReplaceableSlot<void(std::shared_ptr<ZRBURLRequest> request, ZRBDispatchQueuePtr queue,
                            ZRBURLConnectionCompletionHandler handler)>;
// (request, response out, error out) -> the body, absent on failure.
using ZRBURLConnectionSendSynchronousSlot =
    ZRBReplaceableSlot<ZRBValue(std::shared_ptr<ZRBURLRequest> request,
                                std::shared_ptr<const ZRBURLResponse>* response, ZRBErrorPtr* error)>;
