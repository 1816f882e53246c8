// SPDX-License-Identifier: BSD-3-Clause
#include "utils/acl_build_memory.h"

#include <gtest/gtest.h>
#include <rte_acl.h>
#include <sys/mman.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <random>
#include <thread>
#include <vector>

#include "utils/internal/import_slot.h"

namespace Dpdk {
namespace {

constexpr size_t kMb = size_t{1} << 20;

// rte_acl takes its memory in blocks of at least 8 MiB.
constexpr size_t kBlock = 8 * kMb;

RTE_ACL_RULE_DEF(Rule, 2);

// Rules of a protocol and a 4-byte field that only the build can combine.
class Classifier {
 public:
  explicit Classifier(unsigned numRules, const char* name = "limited") {
    rte_acl_param param = {};
    param.name = name;
    param.rule_size = RTE_ACL_RULE_SZ(2);
    param.max_rule_num = numRules;
    ctx_ = rte_acl_create(&param);
    std::mt19937 random(7);
    std::vector<Rule> rules(numRules);
    for (unsigned i = 0; i < numRules; i++) {
      Rule& rule = rules[i];
      std::memset(&rule, 0, sizeof(rule));
      rule.data.category_mask = 1;
      rule.data.priority = 1;
      rule.data.userdata = i + 1;
      rule.field[1].value.u32 = static_cast<uint32_t>(random());
      rule.field[1].mask_range.u32 = 0xffffffff;
    }
    const auto* first = reinterpret_cast<const rte_acl_rule*>(rules.data());
    EXPECT_EQ(rte_acl_add_rules(ctx_, first, numRules), 0);
  }
  ~Classifier() { rte_acl_free(ctx_); }

  int build() {
    rte_acl_config config = {};
    config.num_categories = 1;
    config.num_fields = 2;
    config.defs[0] = {RTE_ACL_FIELD_TYPE_BITMASK, 1, 0, 0, 0};
    config.defs[1] = {RTE_ACL_FIELD_TYPE_BITMASK, 4, 1, 1, 1};
    return rte_acl_build(ctx_, &config);
  }

 private:
  rte_acl_ctx* ctx_;
};

class AclBuildMemoryTest : public testing::Test {
 protected:
  ~AclBuildMemoryTest() override { setAclBuildLimit(before_); }

 private:
  const size_t before_ = aclBuildLimit();
};

// What the machine has is looked at once; the first test, as others set limits.
TEST_F(AclBuildMemoryTest, KeepsTheLimitOfTheFirstLook) {
  const size_t limit = aclBuildLimit();
  std::vector<char> ballast(64 * kMb, 1);
  EXPECT_EQ(aclBuildLimit(), limit);
  ballast.assign(128 * kMb, 2);
  EXPECT_EQ(aclBuildLimit(), limit);
}

TEST_F(AclBuildMemoryTest, HasALimitThatFitsTheMachine) {
  EXPECT_EQ(aclBuildLimitFor(0), 64 * kMb);
  EXPECT_EQ(aclBuildLimitFor(260 * kMb), 65 * kMb);
  EXPECT_EQ(aclBuildLimitFor(16380 * kMb), 4095 * kMb);
  EXPECT_EQ(aclBuildLimitFor(SIZE_MAX), 4096 * kMb);
  EXPECT_GE(aclBuildLimit(), 64 * kMb);
  EXPECT_LE(aclBuildLimit(), 4096 * kMb);
  EXPECT_TRUE(aclBuildsAreLimited());
}

TEST_F(AclBuildMemoryTest, CountsABuildsPeak) {
  setAclBuildLimit(100 * kMb);
  Classifier classifier(1);
  {
    const AclBuildScope scope;
    EXPECT_EQ(scope.memory().peak, 0u);
    EXPECT_EQ(classifier.build(), 0);
    EXPECT_GE(scope.memory().peak, kBlock);
    EXPECT_LT(scope.memory().peak, 2 * kBlock);
    EXPECT_FALSE(scope.memory().refused);
  }
  const AclBuildMemory last = lastAclBuild();
  EXPECT_GE(last.peak, kBlock);
  EXPECT_EQ(last.limit, 100 * kMb);
  EXPECT_FALSE(last.refused);
}

// Blocks that were given back do not count.
TEST_F(AclBuildMemoryTest, ScopeOfTwoBuildsHasThePeakOfOne) {
  Classifier classifier(1);
  const AclBuildScope scope;
  EXPECT_EQ(classifier.build(), 0);
  EXPECT_EQ(classifier.build(), 0);
  EXPECT_LT(scope.memory().peak, 2 * kBlock);
}

TEST_F(AclBuildMemoryTest, ThePeakIsThatOfTheGreatestBuildOfAScope) {
  Classifier great(20000, "great");
  Classifier small(1, "small");
  const AclBuildScope scope;
  EXPECT_EQ(great.build(), 0);
  const size_t peak = scope.memory().peak;
  EXPECT_GT(peak, 2 * kBlock);
  EXPECT_EQ(small.build(), 0);
  EXPECT_EQ(scope.memory().peak, peak);
}

TEST_F(AclBuildMemoryTest, RefusesWhatIsBeyondTheLimit) {
  Classifier classifier(20000);
  {
    const AclBuildScope scope;
    EXPECT_EQ(classifier.build(), 0);
    EXPECT_GT(scope.memory().peak, 2 * kBlock);
  }
  setAclBuildLimit(kBlock + kMb);
  {
    const AclBuildScope scope;
    EXPECT_EQ(classifier.build(), -ENOMEM);
    EXPECT_TRUE(scope.memory().refused);
    EXPECT_FALSE(scope.memory().starved);
    EXPECT_GE(scope.memory().peak, kBlock);
    EXPECT_LE(scope.memory().peak, kBlock + kMb);
  }
  EXPECT_TRUE(lastAclBuild().refused);

  setAclBuildLimit(200 * kMb);
  const AclBuildScope scope;
  EXPECT_EQ(classifier.build(), 0) << "the classifier is not the worse for it";
  EXPECT_FALSE(scope.memory().refused);
}

TEST_F(AclBuildMemoryTest, TheLimitItselfIsWithin) {
  Classifier classifier(20000);
  size_t peak = 0;
  {
    const AclBuildScope scope;
    EXPECT_EQ(classifier.build(), 0);
    peak = scope.memory().peak;
  }
  setAclBuildLimit(peak);
  {
    const AclBuildScope scope;
    EXPECT_EQ(classifier.build(), 0);
    EXPECT_EQ(scope.memory().peak, peak);
  }
  setAclBuildLimit(peak - 1);
  const AclBuildScope scope;
  EXPECT_EQ(classifier.build(), -ENOMEM);
  EXPECT_TRUE(scope.memory().refused);
}

// What a build took goes back to the system, each time.
TEST_F(AclBuildMemoryTest, LeavesNoMappingsBehind) {
  const auto mappings = [] {
    std::ifstream maps("/proc/self/maps");
    return std::count(std::istreambuf_iterator<char>(maps), {}, '\n');
  };
  const auto mappedPages = [] {
    std::ifstream statm("/proc/self/statm");
    size_t pages = 0;
    statm >> pages;
    return pages;
  };
  Classifier classifier(2000);
  const auto build = [&] {
    const AclBuildScope scope;
    EXPECT_EQ(classifier.build(), 0);
  };
  build();
  const auto before = mappings();
  const size_t pagesBefore = mappedPages();
  constexpr int kBuilds = 8;
  for (int i = 0; i < kBuilds; i++) build();
  EXPECT_LT(mappings(), before + kBuilds);  // a sanitizer has some of its own
  EXPECT_LE(mappedPages() * 4096, pagesBefore * 4096 + kBlock);
}

TEST_F(AclBuildMemoryTest, RefusesTheVeryFirstBlock) {
  Classifier classifier(1);
  setAclBuildLimit(0);
  EXPECT_EQ(aclBuildLimit(), 1u) << "nothing at all is no limit to ask for";
  const AclBuildScope scope;
  EXPECT_EQ(classifier.build(), -ENOMEM);
  EXPECT_EQ(scope.memory().peak, 0u);
  EXPECT_TRUE(scope.memory().refused);
}

void* refuseMmap(void*, size_t, int, int, int, off_t) {
  errno = ENOMEM;
  return MAP_FAILED;
}

TEST_F(AclBuildMemoryTest, FailsWhereTheSystemHasNoMore) {
  constexpr char kOurs[] = "libacl_build_memory.so";
  ASSERT_TRUE(internal::redirectImport(kOurs, "mmap",
                                       reinterpret_cast<void*>(&refuseMmap)));
  Classifier classifier(1);
  const AclBuildScope scope;
  EXPECT_EQ(classifier.build(), -ENOMEM);
  EXPECT_EQ(scope.memory().peak, 0u);
  EXPECT_FALSE(scope.memory().refused) << "it was within the limit";
  EXPECT_TRUE(scope.memory().starved);
  ASSERT_TRUE(
      internal::redirectImport(kOurs, "mmap", reinterpret_cast<void*>(&mmap)));
  EXPECT_EQ(classifier.build(), 0) << "nothing is left of the attempt";
}

struct Range {
  uintptr_t start;
  size_t bytes;
};
std::vector<Range> mapped;
std::vector<Range> advised;  // to be in huge pages

void* noteMmap(void* start, size_t bytes, int protection, int flags, int fd,
               off_t offset) {
  void* made = mmap(start, bytes, protection, flags, fd, offset);
  mapped.push_back({reinterpret_cast<uintptr_t>(made), bytes});
  return made;
}

int noteMadvise(void* start, size_t bytes, int advice) {
  EXPECT_EQ(advice, MADV_HUGEPAGE);
  advised.push_back({reinterpret_cast<uintptr_t>(start), bytes});
  return madvise(start, bytes, advice);
}

// All but the first 2 MiB, of which a small build has enough.
TEST_F(AclBuildMemoryTest, AsksForHugePagesForWhatGreatBuildsTake) {
  constexpr char kOurs[] = "libacl_build_memory.so";
  constexpr size_t kHuge = 2 * kMb;
  const auto redirect = [&](const char* function, auto* to) {
    return internal::redirectImport(kOurs, function,
                                    reinterpret_cast<void*>(to));
  };
  ASSERT_TRUE(redirect("mmap", &noteMmap));
  ASSERT_TRUE(redirect("madvise", &noteMadvise));
  Classifier classifier(20000);
  {
    const AclBuildScope scope;
    EXPECT_EQ(classifier.build(), 0);
  }
  ASSERT_TRUE(redirect("mmap", &mmap));
  ASSERT_TRUE(redirect("madvise", &madvise));
  ASSERT_GE(mapped.size(), 2u);
  ASSERT_EQ(advised.size(), mapped.size());
  for (size_t i = 0; i < 2; i++) {
    const size_t spared = i == 0 ? kHuge : 0;
    const uintptr_t start = (mapped[i].start + kHuge - 1) / kHuge * kHuge;
    const size_t wanted = mapped[i].bytes - kHuge;  // to begin where one does
    EXPECT_EQ(advised[i].start, start + spared) << i;
    EXPECT_EQ(advised[i].bytes, wanted / kHuge * kHuge - spared) << i;
  }
}

TEST_F(AclBuildMemoryTest, AnOpenScopeKeepsItsLimit) {
  setAclBuildLimit(100 * kMb);
  const AclBuildScope scope;
  setAclBuildLimit(kMb);
  Classifier classifier(1);
  EXPECT_EQ(classifier.build(), 0);
}

TEST_F(AclBuildMemoryTest, LimitsNobodyElse) {
  setAclBuildLimit(kMb);
  Classifier mine(1);
  Classifier other(1, "other");
  EXPECT_EQ(mine.build(), 0) << "no scope is open";
  const AclBuildScope scope;
  int result = -1;
  std::thread([&] { result = other.build(); }).join();
  EXPECT_EQ(result, 0) << "not on that thread";
  void* block = std::calloc(kBlock, 2);
  EXPECT_NE(block, nullptr) << "not the library's";
  std::free(block);
  EXPECT_EQ(scope.memory().peak, 0u);
  EXPECT_EQ(mine.build(), -ENOMEM);
}

TEST_F(AclBuildMemoryTest, RedirectsNothingThatIsNotThere) {
  EXPECT_FALSE(internal::redirectImport("librte_nothing.so", "calloc", this));
  EXPECT_FALSE(internal::redirectImport("rte_acl.so", "calloc", this));
  EXPECT_FALSE(internal::redirectImport("librte_acl.so", "realloc", this));
  EXPECT_FALSE(internal::redirectImport("librte_acl.so", "callo", this));
  Classifier classifier(1);
  EXPECT_EQ(classifier.build(), 0);
}

}  // namespace
}  // namespace Dpdk
