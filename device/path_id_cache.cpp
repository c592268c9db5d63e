#include "path_id_cache.h"

namespace dorwex {

namespace {

// The nodes of the map, the list and the two index sets, and the strings' own blocks.
constexpr std::size_t kNodeOverhead = 320;

}  // namespace

std::wstring PathIdCache::Key(std::wstring_view parentId, std::wstring_view foldedName) {
    std::wstring key;
    key.reserve(parentId.size() + 1 + foldedName.size());
    key.append(parentId);
    key.push_back(L'\0');  // ids and names hold no NUL, so the pair is unambiguous
    key.append(foldedName);
    return key;
}

bool PathIdCache::Find(std::wstring_view parentId, std::wstring_view foldedName, Child& child_out) {
    const std::lock_guard<std::mutex> guard(m_lock);
    const auto found = m_nodes.find(Key(parentId, foldedName));
    if (found == m_nodes.end() || found->second.shared) {
        return false;
    }
    auto& uses = Uses(found->second);
    uses.splice(uses.begin(), uses, found->second.use);
    child_out = found->second.child;
    return true;
}

void PathIdCache::BeginFolder(std::wstring_view parentId) {
    const std::lock_guard<std::mutex> guard(m_lock);
    const auto children = m_byParent.find(std::wstring(parentId));
    if (children == m_byParent.end()) {
        return;
    }
    const std::unordered_set<std::wstring> keys = children->second;
    for (const auto& key : keys) {
        Erase(key);
    }
}

void PathIdCache::Remember(std::wstring_view parentId, std::wstring_view foldedName, std::wstring_view id,
                           std::wstring_view name, bool folder) {
    const std::lock_guard<std::mutex> guard(m_lock);
    std::wstring key = Key(parentId, foldedName);
    const auto found = m_nodes.find(key);
    if (found != m_nodes.end()) {
        if (found->second.child.id != id) {
            found->second.shared = true;  // kept, so that a later child of the name stays unanswered too
        }
        return;
    }
    Node node;
    node.parent = std::wstring(parentId);
    node.child.id = std::wstring(id);
    node.child.name = std::wstring(name);
    node.child.folder = folder;
    node.bytes = kNodeOverhead + sizeof(wchar_t) * (4 * key.size() + 2 * parentId.size() + 2 * id.size() + name.size());
    if (node.bytes > m_budget) {
        return;
    }
    Uses(node).push_front(key);
    node.use = Uses(node).begin();
    m_byId[node.child.id].insert(key);
    m_byParent[node.parent].insert(key);
    m_bytes += node.bytes;
    m_nodes.emplace(std::move(key), std::move(node));
    while (m_bytes > m_budget && !(m_fileUses.empty() && m_folderUses.empty())) {
        const std::wstring oldest = m_fileUses.empty() ? m_folderUses.back() : m_fileUses.back();
        Erase(oldest);
    }
}

void PathIdCache::Forget(std::wstring_view id) {
    const std::lock_guard<std::mutex> guard(m_lock);
    const std::wstring text(id);
    for (auto* index : {&m_byId, &m_byParent}) {
        const auto found = index->find(text);
        if (found == index->end()) {
            continue;
        }
        const std::unordered_set<std::wstring> keys = found->second;
        for (const auto& key : keys) {
            Erase(key);
        }
    }
}

void PathIdCache::Clear() {
    const std::lock_guard<std::mutex> guard(m_lock);
    m_nodes.clear();
    m_byId.clear();
    m_byParent.clear();
    m_fileUses.clear();
    m_folderUses.clear();
    m_bytes = 0;
}

std::size_t PathIdCache::Size() const {
    const std::lock_guard<std::mutex> guard(m_lock);
    return m_nodes.size();
}

std::size_t PathIdCache::Bytes() const {
    const std::lock_guard<std::mutex> guard(m_lock);
    return m_bytes;
}

void PathIdCache::Unlink(std::unordered_map<std::wstring, std::unordered_set<std::wstring>>& index,
                         const std::wstring& value, const std::wstring& key) {
    const auto found = index.find(value);
    if (found == index.end()) {
        return;
    }
    found->second.erase(key);
    if (found->second.empty()) {
        index.erase(found);
    }
}

void PathIdCache::Erase(const std::wstring& key) {
    const auto found = m_nodes.find(key);
    if (found == m_nodes.end()) {
        return;
    }
    Unlink(m_byId, found->second.child.id, key);
    Unlink(m_byParent, found->second.parent, key);
    Uses(found->second).erase(found->second.use);
    m_bytes -= found->second.bytes;
    m_nodes.erase(found);
}

}  // namespace dorwex
