#include "device/path_id_cache.h"

#include <gtest/gtest.h>

#include <string>

using dorwex::PathIdCache;

namespace {

bool Has(PathIdCache& cache, const wchar_t* parent, const wchar_t* folded, std::wstring* id_out = nullptr) {
    PathIdCache::Child child;
    const bool found = cache.Find(parent, folded, child);
    if (found && id_out != nullptr) {
        *id_out = child.id;
    }
    return found;
}

}  // namespace

// What a lookup may be answered with after each change; a wrong answer sends a delete to another object.
TEST(PathIdCache, AnswersOnlyWhatItCanStillVouchFor) {
    struct Case {
        const char* what;
        void (*change)(PathIdCache&);
        bool photo;   // s1 / "dcim" / "a.jpg" still answered
        bool folder;  // s1 / "dcim" still answered
    };
    const Case cases[] = {
        {"nothing changed", [](PathIdCache&) {}, true, true},
        {"the photo removed", [](PathIdCache& c) { c.Forget(L"o3"); }, false, true},
        {"the folder renamed: it and what is inside it go", [](PathIdCache& c) { c.Forget(L"o2"); }, false, false},
        {"an unrelated object", [](PathIdCache& c) { c.Forget(L"o9"); }, true, true},
        {"the device gone", [](PathIdCache& c) { c.Clear(); }, false, false},
        {"the folder read again without the photo",
         [](PathIdCache& c) {
             c.BeginFolder(L"o2");
             c.Remember(L"o2", L"B.JPG", L"o4", L"b.jpg", false);
         },
         false, true},
        {"a second photo of the same name beside it (a device that tells case apart)",
         [](PathIdCache& c) { c.Remember(L"o2", L"A.JPG", L"o5", L"A.JPG", false); }, false, true},
        {"the same photo seen again", [](PathIdCache& c) { c.Remember(L"o2", L"A.JPG", L"o3", L"a.jpg", false); },
         true, true},
    };
    for (const auto& c : cases) {
        PathIdCache cache;
        cache.Remember(L"s1", L"DCIM", L"o2", L"DCIM", true);
        cache.Remember(L"o2", L"A.JPG", L"o3", L"a.jpg", false);
        c.change(cache);
        std::wstring id;
        EXPECT_EQ(Has(cache, L"o2", L"A.JPG", &id), c.photo) << c.what;
        if (c.photo) {
            EXPECT_EQ(id, L"o3") << c.what;
        }
        EXPECT_EQ(Has(cache, L"s1", L"DCIM"), c.folder) << c.what;
        EXPECT_FALSE(Has(cache, L"s1", L"A.JPG")) << c.what << ": a name belongs to its folder only";
    }
}

// A name shared in one reading of the folder stays unanswered even after the entry of another name is used.
TEST(PathIdCache, ASharedNameIsNeverAnsweredUntilTheFolderIsReadAgain) {
    PathIdCache cache;
    cache.BeginFolder(L"o2");
    cache.Remember(L"o2", L"A.JPG", L"o3", L"a.jpg", false);
    cache.Remember(L"o2", L"A.JPG", L"o5", L"A.JPG", false);
    cache.Remember(L"o2", L"A.JPG", L"o3", L"a.jpg", false);
    EXPECT_FALSE(Has(cache, L"o2", L"A.JPG"));
    cache.BeginFolder(L"o2");
    cache.Remember(L"o2", L"A.JPG", L"o5", L"A.JPG", false);
    std::wstring id;
    EXPECT_TRUE(Has(cache, L"o2", L"A.JPG", &id));
    EXPECT_EQ(id, L"o5");
}

// A folder of 30,000 children stays within the budget; the least recently used entries go first, files before
// folders, so that the folders on the way of a path survive the reading of large folders after them.
TEST(PathIdCache, StaysWithinItsBudget) {
    constexpr std::size_t kBudget = 1u << 20;
    PathIdCache cache(kBudget);
    cache.Remember(L"s1", L"DCIM", L"o1", L"DCIM", true);
    cache.Remember(L"s1", L"MUSIC", L"o2", L"Music", true);
    for (int i = 0; i < 30000; ++i) {
        const std::wstring name = L"IMG_" + std::to_wstring(i) + L".JPG";
        cache.Remember(L"o1", name, L"o" + std::to_wstring(i + 10), name, false);
        ASSERT_LE(cache.Bytes(), kBudget);
    }
    EXPECT_GT(cache.Size(), 1000u);
    EXPECT_LT(cache.Size(), 30000u);
    EXPECT_TRUE(Has(cache, L"o1", L"IMG_29999.JPG"));
    EXPECT_FALSE(Has(cache, L"o1", L"IMG_0.JPG"));
    EXPECT_TRUE(Has(cache, L"s1", L"MUSIC")) << "a folder, not used since, outlived 30,000 files";
    cache.Forget(L"o1");
    EXPECT_EQ(cache.Size(), 1u) << "DCIM and its children went; Music stays";
    EXPECT_TRUE(Has(cache, L"s1", L"MUSIC"));
    cache.Clear();
    EXPECT_EQ(cache.Bytes(), 0u);
}
