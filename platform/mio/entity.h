// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>

#include "platform/mio/ptr.h"

namespace Mio {

// Base of objects that live as long as someone holds a Ptr to them, and of the
// process's singletons, which are found by name. All of it is thread-safe.
class Entity {
 public:
  // How to make an entity, and what its kind is called.
  struct Type {
    std::string name;
    std::function<Ptr<Entity>()> make;
  };

  Entity() = default;
  Entity(const Entity&) = delete;
  Entity& operator=(const Entity&) = delete;

  // The living singleton of that name, or null. One whose last reference has
  // gone is never handed out, even while it is still being destroyed.
  static Ptr<Entity> singletonExists(const std::string& name);

  // The living singleton of that name, or a new one made by `type`. The
  // registry itself holds no reference. `type.make` runs under the registry's
  // lock, and may look up or make other singletons.
  static Ptr<Entity> singletonIs(const Type& type, const std::string& name);

  // For Ptr.
  void addReference() { references_.fetch_add(1, std::memory_order_relaxed); }
  void releaseReference();

 protected:
  virtual ~Entity();

  // Runs once, on the thread that dropped the last reference.
  virtual void onZeroReferences() { delete this; }

 private:
  friend class SingletonRegistry;

  // False when the last reference has gone.
  bool tryAddReference();

  std::atomic<uint32_t> references_{0};
  std::atomic<bool> isSingleton_{false};
};

}  // namespace Mio
