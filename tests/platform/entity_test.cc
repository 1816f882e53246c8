// SPDX-License-Identifier: BSD-3-Clause
#include "platform/mio/entity.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using Mio::Entity;
using Mio::Ptr;

std::atomic<int> alive;

struct Thing : Entity {
  Thing() { alive++; }
  ~Thing() override { alive--; }
  int number = 7;
};

// Looks itself up while it is being destroyed.
struct Dying : Entity {
  ~Dying() override { found = singletonExists("dying") != nullptr; }
  static inline bool found;
};

// Keeps itself at zero references.
struct Pooled : Entity {
  void onZeroReferences() override { returned++; }
  static inline int returned;
};

// Needs another singleton to be made.
struct Outer : Entity {
  Outer();
  Ptr<Entity> inner;
};

template <class T>
Entity::Type typeOf(const std::string& name) {
  return {name, [] { return Ptr<Entity>(new T); }};
}

Outer::Outer() : inner(singletonIs(typeOf<Thing>("Thing"), "inner")) {}

class EntityTest : public testing::Test {
 protected:
  EntityTest() { alive = 0; }
  const Entity::Type thing_ = typeOf<Thing>("Thing");
};

TEST_F(EntityTest, LivesAsLongAsAPtr) {
  Ptr<Thing> first(new Thing);
  Ptr<Thing> second = first;
  EXPECT_EQ(second->number, 7);
  first.reset();
  EXPECT_FALSE(first);
  EXPECT_EQ(first.get(), nullptr);
  EXPECT_EQ(alive, 1);
  second.reset();
  EXPECT_EQ(alive, 0);
}

TEST_F(EntityTest, PtrMovesWithoutCounting) {
  Ptr<Thing> first(new Thing);
  Thing* raw = first.get();
  Ptr<Thing> second = std::move(first);
  EXPECT_EQ(second.get(), raw);
  EXPECT_EQ(alive, 1);
  first = std::move(second);
  EXPECT_EQ(first.get(), raw);
  EXPECT_EQ(alive, 1);
}

TEST_F(EntityTest, AssigningReleasesWhatWasHeld) {
  Ptr<Thing> ptr(new Thing);
  Thing* second = new Thing;
  ptr = Ptr<Thing>(second);
  EXPECT_EQ(alive, 1);
  EXPECT_EQ(ptr.get(), second);
  Ptr<Thing>& self = ptr;
  ptr = self;
  EXPECT_EQ(alive, 1);
  ptr = nullptr;
  EXPECT_EQ(alive, 0);
}

TEST_F(EntityTest, PtrConvertsToTheBaseAndCastsBack) {
  const Ptr<Thing> thing(new Thing);
  const Ptr<Entity> entity = thing;
  EXPECT_TRUE(entity == thing);
  const auto back = Mio::ptrCast<Thing>(entity);
  EXPECT_EQ(back->number, 7);
  EXPECT_EQ(alive, 1);
}

TEST_F(EntityTest, TheZeroReferenceHandlerMayKeepTheEntity) {
  Pooled pooled;
  Ptr<Pooled> ptr(&pooled);
  ptr.reset();
  EXPECT_EQ(Pooled::returned, 1);
  ptr = Ptr<Pooled>(&pooled);
  ptr.reset();
  EXPECT_EQ(Pooled::returned, 2);
}

TEST_F(EntityTest, ASingletonIsFoundByName) {
  EXPECT_EQ(Entity::singletonExists("one"), nullptr);
  const Ptr<Entity> made = Entity::singletonIs(thing_, "one");
  ASSERT_TRUE(made);
  EXPECT_EQ(Entity::singletonExists("one"), made);
  EXPECT_EQ(Entity::singletonExists("two"), nullptr);
  EXPECT_EQ(Entity::singletonIs(thing_, "one"), made);
  const Ptr<Entity> other = Entity::singletonIs(thing_, "two");
  EXPECT_FALSE(other == made);
  EXPECT_EQ(alive, 2);
}

TEST_F(EntityTest, TheRegistryHoldsNoReference) {
  Ptr<Entity> made = Entity::singletonIs(thing_, "one");
  Ptr<Entity> found = Entity::singletonExists("one");
  made.reset();
  EXPECT_EQ(alive, 1);
  found.reset();
  EXPECT_EQ(alive, 0);
  EXPECT_EQ(Entity::singletonExists("one"), nullptr);
  made = Entity::singletonIs(thing_, "one");
  EXPECT_EQ(alive, 1);
}

TEST_F(EntityTest, ADyingSingletonIsNotFound) {
  Dying::found = true;
  Ptr<Entity> dying = Entity::singletonIs(typeOf<Dying>("Dying"), "dying");
  dying.reset();
  EXPECT_FALSE(Dying::found);
}

TEST_F(EntityTest, MakingOneSingletonMayMakeAnother) {
  const Ptr<Entity> outer =
      Entity::singletonIs(typeOf<Outer>("Outer"), "outer");
  EXPECT_EQ(Entity::singletonExists("inner"),
            Mio::ptrCast<Outer>(outer)->inner);
}

// Threads fight for the birth and death of one singleton; each must hold a
// living one, and at most the dying and the new one are there at a time.
TEST_F(EntityTest, ThreadsShareOneSingleton) {
  std::atomic<int> wrong{0};
  const auto fight = [&] {
    for (int i = 0; i < 5000; i++) {
      const auto made =
          Mio::ptrCast<Thing>(Entity::singletonIs(thing_, "fought for"));
      const Ptr<Entity> found = Entity::singletonExists("fought for");
      if (!(found == made) || made->number != 7) {
        wrong++;
      }
    }
  };
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; i++) {
    threads.emplace_back(fight);
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(alive, 0);
  EXPECT_EQ(Entity::singletonExists("fought for"), nullptr);
}

// While one singleton is being made, which holds the registry, the last
// reference to another goes: that one is at its end, and cannot be forgotten
// yet.
TEST_F(EntityTest, ASingletonAtItsEndIsNotHandedOut) {
  Ptr<Entity> ending = Entity::singletonIs(thing_, "ending");
  Ptr<Entity> younger;
  std::thread last;
  const Entity::Type type = {
      "Maker", [&] {
        last = std::thread([&] { ending.reset(); });
        const auto deadline =
            std::chrono::steady_clock::now() + std::chrono::seconds(10);
        do {  // seldom, as each look holds a reference for a moment
          std::this_thread::sleep_for(std::chrono::milliseconds(10));
        } while (Entity::singletonExists("ending") &&
                 std::chrono::steady_clock::now() < deadline);
        EXPECT_EQ(Entity::singletonExists("ending"), nullptr);
        EXPECT_EQ(alive, 1) << "it is not destroyed yet";
        younger = Entity::singletonIs(thing_, "ending");
        EXPECT_EQ(alive, 2);
        return Ptr<Entity>(new Thing);
      }};
  const Ptr<Entity> maker = Entity::singletonIs(type, "maker");
  last.join();
  EXPECT_EQ(alive, 2);
  // The older one has not taken the name with it.
  EXPECT_EQ(Entity::singletonExists("ending"), younger);
}

TEST_F(EntityTest, ANameBelongsToOneType) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const Ptr<Entity> made = Entity::singletonIs(thing_, "one");
  EXPECT_DEATH(Entity::singletonIs(typeOf<Dying>("Dying"), "one"),
               "singleton \"one\" is of another type");
}

TEST_F(EntityTest, ATypeMakesEntities) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const Entity::Type none = {"None", [] { return Ptr<Entity>(); }};
  EXPECT_DEATH(Entity::singletonIs(none, "one"),
               "type \"None\" made no entity");
}

}  // namespace
