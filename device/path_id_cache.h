// The object ids a device's path lookups found, so that the next lookup of a name in the same folder need
// not read the folder again (a folder may hold 10,000 objects, each read costs the device time per object).
//
// An entry is a child of a folder: the folder's id, the child's name folded for the index, the child's id,
// its name as the device gave it and whether it is a folder. What the cache answers is only a candidate: the
// caller reads the object's parent and name from the device before it uses the id, and forgets the entry
// when they no longer match. A name that two children of one folder share (a device may tell "a.jpg" from
// "A.JPG") is not answered, so that the lookup of it goes to the folder and takes the first in the device's
// order, as a lookup without the cache does.
//
// Bounded: beyond the byte budget the least recently used entries go, files before folders: a path leads
// through few folders, and reading three folders of 10,000 files one after another must not push out the
// folders on the way. Pure logic, no Windows headers; safe to use from several threads.
#pragma once

#include <cstddef>
#include <list>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

namespace dorwex {

class PathIdCache {
public:
    // About 40,000 children of typical names; the estimate counts the text and the containers' nodes.
    static constexpr std::size_t kDefaultBudgetBytes = 8u << 20;

    struct Child {
        std::wstring id;
        std::wstring name;
        bool folder = false;
    };

    explicit PathIdCache(std::size_t budgetBytes = kDefaultBudgetBytes) : m_budget(budgetBytes) {}

    // The remembered child of the folder under the folded name; false when there is none or the name is
    // shared.
    bool Find(std::wstring_view parentId, std::wstring_view foldedName, Child& child_out);
    // A new reading of the folder starts: what was remembered of its children goes, so that a name two of
    // them share in this reading is seen as shared.
    void BeginFolder(std::wstring_view parentId);
    // A child seen in the folder. A second, different child under the same folded name makes the name shared.
    void Remember(std::wstring_view parentId, std::wstring_view foldedName, std::wstring_view id,
                  std::wstring_view name, bool folder);
    // The object was removed or changed, or failed its check: its entries and those of its children go.
    void Forget(std::wstring_view id);
    void Clear();

    std::size_t Size() const;
    std::size_t Bytes() const;

private:
    struct Node {
        std::wstring parent;
        Child child;
        bool shared = false;
        std::size_t bytes = 0;
        std::list<std::wstring>::iterator use;  // its place in the list of its kind
    };
    std::list<std::wstring>& Uses(const Node& node) { return node.child.folder ? m_folderUses : m_fileUses; }
    static std::wstring Key(std::wstring_view parentId, std::wstring_view foldedName);
    void Erase(const std::wstring& key);  // with the lock held
    void Unlink(std::unordered_map<std::wstring, std::unordered_set<std::wstring>>& index, const std::wstring& value,
                const std::wstring& key);

    mutable std::mutex m_lock;
    const std::size_t m_budget;
    std::size_t m_bytes = 0;
    std::unordered_map<std::wstring, Node> m_nodes;                               // key -> entry
    std::unordered_map<std::wstring, std::unordered_set<std::wstring>> m_byId;      // child id -> keys
    std::unordered_map<std::wstring, std::unordered_set<std::wstring>> m_byParent;  // folder id -> keys
    std::list<std::wstring> m_fileUses;    // keys of files, most recent first
    std::list<std::wstring> m_folderUses;  // keys of folders, most recent first
};

}  // namespace dorwex
