// SPDX-License-Identifier: BSD-3-Clause
#include "platform/mio/entity.h"

#include <glog/logging.h>

#include <map>
#include <mutex>

namespace Mio {

// Names of the living singletons. An entity whose count has come to zero may
// still be listed, until forget(); tryAddReference() keeps it from being used,
// and forget() waits for the lock, so a listed entity is always readable.
class SingletonRegistry {
 public:
  static SingletonRegistry& instance() {
    // Never destroyed: entities may be released by other static destructors.
    static auto* registry = new SingletonRegistry;
    return *registry;
  }

  Ptr<Entity> find(const std::string& name) {
    const std::lock_guard lock(mutex_);
    const auto it = singletons_.find(name);
    if (it == singletons_.end() || !it->second.entity->tryAddReference()) {
      return nullptr;
    }
    return Ptr<Entity>::adopt(it->second.entity);
  }

  Ptr<Entity> findOrMake(const Entity::Type& type, const std::string& name) {
    const std::lock_guard lock(mutex_);
    if (Ptr<Entity> living = find(name)) {
      CHECK_EQ(singletons_[name].type, type.name)
          << "singleton \"" << name << "\" is of another type";
      return living;
    }
    Ptr<Entity> made = type.make();
    CHECK(made) << "type \"" << type.name << "\" made no entity";
    made->isSingleton_.store(true, std::memory_order_relaxed);
    singletons_[name] = {made.get(), type.name};
    return made;
  }

  void forget(const Entity* entity) {
    const std::lock_guard lock(mutex_);
    // Its name may have gone to a younger singleton already.
    std::erase_if(singletons_, [entity](const auto& item) {
      return item.second.entity == entity;
    });
  }

 private:
  struct Singleton {
    Entity* entity;
    std::string type;
  };

  // Recursive, because making one singleton may need another.
  std::recursive_mutex mutex_;
  std::map<std::string, Singleton> singletons_;
};

Entity::~Entity() = default;

Ptr<Entity> Entity::singletonExists(const std::string& name) {
  return SingletonRegistry::instance().find(name);
}

Ptr<Entity> Entity::singletonIs(const Type& type, const std::string& name) {
  return SingletonRegistry::instance().findOrMake(type, name);
}

void Entity::releaseReference() {
  // Release: what this thread did to the entity comes before its end. Acquire:
  // whoever ends it sees what the others did.
  if (references_.fetch_sub(1, std::memory_order_acq_rel) != 1) {
    return;
  }
  if (isSingleton_.load(std::memory_order_relaxed)) {
    SingletonRegistry::instance().forget(this);
  }
  onZeroReferences();
}

bool Entity::tryAddReference() {
  uint32_t references = references_.load(std::memory_order_relaxed);
  while (references != 0) {
    if (references_.compare_exchange_weak(references, references + 1,
                                          std::memory_order_relaxed)) {
      return true;
    }
  }
  return false;
}

}  // namespace Mio
