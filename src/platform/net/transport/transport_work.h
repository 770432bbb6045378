// ZRBTransportWork: a move-only void() callable for the transport's queues of work and callbacks.
//
// The closures a task hands over per request (a task driver and a step, a delegate call with its
// session and task, a chunk of body bytes, the task's completion) fit in its inline storage, so handing work
// from one thread to another, or to the delegate queue, costs no allocation; std::function would allocate for
// any capture that is not trivially copyable. Larger callables are kept on the heap.
#pragma once

#include <cstddef>
#include <new>
#include <type_traits>
#include <utility>

class ZRBTransportWork {
 public:
  static constexpr std::size_t kInlineSize = 128;

  ZRBTransportWork() noexcept = default;

  template <typename F, typename = std::enable_if_t<!std::is_same_v<std::decay_t<F>, ZRBTransportWork> &&
                                                    std::is_invocable_r_v<void, std::decay_t<F>&>>>
  ZRBTransportWork(F&& function) {  // NOLINT(google-explicit-constructor): used like std::function
    using Stored = std::decay_t<F>;
    if constexpr (fitsInline<Stored>()) {
      ::new (static_cast<void*>(storage_)) Stored(std::forward<F>(function));
      ops_ = &inlineOps<Stored>;
    } else {
      *reinterpret_cast<Stored**>(storage_) = new Stored(std::forward<F>(function));
      ops_ = &heapOps<Stored>;
    }
  }

  ZRBTransportWork(ZRBTransportWork&& other) noexcept : ops_(other.ops_) {
    if (ops_) ops_->relocate(other.storage_, storage_);
    other.ops_ = nullptr;
  }

  ZRBTransportWork& operator=(ZRBTransportWork&& other) noexcept {
    if (this != &other) {
      reset();
      ops_ = other.ops_;
      if (ops_) ops_->relocate(other.storage_, storage_);
      other.ops_ = nullptr;
    }
    return *this;
  }

  ZRBTransportWork(const ZRBTransportWork&) = delete;
  ZRBTransportWork& operator=(const ZRBTransportWork&) = delete;
  ~ZRBTransportWork() { reset(); }

  explicit operator bool() const noexcept { return ops_ != nullptr; }
  // Calling an empty one does nothing.
  void operator()() {
    if (ops_) ops_->invoke(storage_);
  }

 private:
  struct Ops {
    void (*invoke)(void* storage);
    // Moves the callable from one storage to the other and ends it in the first.
    void (*relocate)(void* from, void* to) noexcept;
    void (*destroy)(void* storage) noexcept;
  };

  template <typename T>
  static constexpr bool fitsInline() {
    return sizeof(T) <= kInlineSize && alignof(T) <= alignof(std::max_align_t) &&
           std::is_nothrow_move_constructible_v<T>;
  }

  template <typename T>
  static constexpr Ops inlineOps = {
      [](void* storage) { (*static_cast<T*>(storage))(); },
      [](void* from, void* to) noexcept {
        T* source = static_cast<T*>(from);
        ::new (to) T(std::move(*source));
        source->~T();
      },
      [](void* storage) noexcept { static_cast<T*>(storage)->~T(); },
  };

  template <typename T>
  static constexpr Ops heapOps = {
      [](void* storage) { (**static_cast<T**>(storage))(); },
      [](void* from, void* to) noexcept { *static_cast<T**>(to) = *static_cast<T**>(from); },
      [](void* storage) noexcept { delete *static_cast<T**>(storage); },
  };

  void reset() noexcept {
    if (ops_) ops_->destroy(storage_);
    ops_ = nullptr;
  }

  alignas(std::max_align_t) unsigned char storage_[kInlineSize];
  const Ops* ops_ = nullptr;
};
