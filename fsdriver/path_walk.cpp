// From a path to a directory object, and the directory operations that
// change the tree: the path cache and the bound on idle directory objects
// live here.
#include "fsdriver/directory_object.h"
#include "loader/common/raise.h"
#include "fsdriver/file_system_driver.h"
#include "fsdriver/iterator_object.h"

#include <iterator>

namespace {

// Keeps a directory object from being evicted while an operation stands on it.
class DirectoryPin {
public:
    explicit DirectoryPin(FileSystemDriver::DirectoryObject* object) : object_(object) {
        if (object_ != nullptr) ++object_->references;
    }
    ~DirectoryPin() {
        if (object_ != nullptr) --object_->references;
    }
    DirectoryPin(const DirectoryPin&) = delete;
    DirectoryPin& operator=(const DirectoryPin&) = delete;

private:
    FileSystemDriver::DirectoryObject* object_;
};

// A driver path split at its last "/": "/a/b" gives "/a" and "b", "/b" gives "/" and "b".
struct SplitPath {
    explicit SplitPath(const std::u16string& path) {
        std::size_t slash = path.rfind(u'/');
        std::size_t leaf_start = slash == std::u16string::npos ? 0 : slash + 1;
        std::size_t parent_length = slash == std::u16string::npos || slash == 0 ? 0 : slash;
        parent.assign(path, 0, parent_length);
        if (parent.empty()) parent.push_back(u'/');
        leaf.assign(path, leaf_start, std::u16string::npos);
    }
    std::u16string parent;
    std::u16string leaf;
};

std::u16string WithoutLeadingSlash(const std::u16string& path) {
    return !path.empty() && path[0] == u'/' ? path.substr(1) : path;
}

}  // namespace

FileSystemDriver::DirectoryObject* FileSystemDriver::get_directory(const std::u16string& path) {
    std::u16string relative = WithoutLeadingSlash(path);
    normalize_path(relative);
    std::uint32_t id = 0;
    std::size_t offset = 0;
    // The longest prefix that the cache knows: the whole text, then up to
    // each earlier "/" going backwards.
    if (!relative.empty()) {
        std::size_t end = relative.size();
        for (;;) {
            auto hit = path_cache.find(relative.substr(0, end));
            if (hit != path_cache.end()) {
                id = hit->second;
                offset = end == relative.size() ? end : end + 1;
                break;
            }
            if (end == 0) break;
            std::size_t slash = relative.rfind(u'/', end - 1);
            if (slash == std::u16string::npos) break;
            end = slash;
        }
    }
    DirectoryObject* object = get_object(id);
    while (offset < relative.size()) {
        std::size_t end = relative.find(u'/', offset);
        if (end == std::u16string::npos) end = relative.size();
        {
            DirectoryPin pin(object);
            id = object->lookup_directory(relative.substr(offset, end - offset));
        }
        path_cache.emplace(relative.substr(0, end), id);
        object = get_object(id);
        offset = end + 1;
    }
    if (path_cache.size() > kPathCacheLimit) path_cache.clear();
    if (directory_count > kIdleDirectoryLimit) trim_directories(object);
    return object;
}

void FileSystemDriver::trim_directories(DirectoryObject* keep) {
    DirectoryPin pin(keep);
    DirectoryObject* object = directory_lru.tail();
    while (object != nullptr && directory_count > kIdleDirectoryLimit) {
        DirectoryObject* newer = directory_lru.before(object);
        if (object->references == 0) {
            directories.erase(object->id);
            delete object;
        }
        object = newer;
    }
}

// Walks `relative` from the root, component by component, through the path
// cache or the directories themselves, entering each prefix. Meeting
// `refuse_id` on the way means a directory would move into itself.
std::uint32_t FileSystemDriver::walk_directory_ids(const std::u16string& relative, std::uint32_t refuse_id) {
    std::uint32_t id = 0;
    std::size_t offset = 0;
    while (offset < relative.size()) {
        std::size_t end = relative.find(u'/', offset);
        if (end == std::u16string::npos) end = relative.size();
        std::u16string prefix = relative.substr(0, end);
        auto hit = path_cache.find(prefix);
        if (hit != path_cache.end()) {
            id = hit->second;
        } else {
            DirectoryObject* object = get_object(id);
            DirectoryPin pin(object);
            id = object->lookup_directory(relative.substr(offset, end - offset));
            path_cache.emplace(prefix, id);
        }
        if (id == refuse_id) Common::Raise(ERROR_TAG, Common::Failures::FILE_RENAME);
        offset = end + 1;
    }
    return id;
}

void FileSystemDriver::rename(const std::u16string& from, const std::u16string& to) {
    if (from.size() < 2 || to.size() < 2) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_RENAME);
    }
    SplitPath source(from);
    SplitPath target(to);
    DirectoryObject* source_parent = get_directory(source.parent);
    DirectoryPin source_pin(source_parent);
    DirectoryObject* target_parent = source_parent;
    if (target.parent != source.parent) target_parent = get_directory(target.parent);
    DirectoryPin target_pin(target_parent == source_parent ? nullptr : target_parent);

    // A directory that moves must not land inside itself.
    std::u16string key = WithoutLeadingSlash(from);
    normalize_path(key);
    try {
        std::uint32_t source_id;
        auto hit = path_cache.find(key);
        if (hit != path_cache.end()) {
            source_id = hit->second;
        } else {
            source_id = source_parent->lookup_directory(source.leaf);
            path_cache.emplace(key, source_id);
        }
        if (target_parent != source_parent && target.parent != u"/") {
            std::u16string target_path = WithoutLeadingSlash(target.parent);
            normalize_path(target_path);
            walk_directory_ids(target_path, source_id);
        }
    } catch (const Common::Error& error) {
        // FILE_OPEN only says that the source is no directory.
        if (error.Code() != Common::FILE_OPEN) throw;
    }
    source_parent->rename_entry(source.leaf, *target_parent, target.leaf);
    path_cache.clear();
}

void FileSystemDriver::link(const std::u16string& from, const std::u16string& to) {
    SplitPath source(from);
    SplitPath target(to);
    DirectoryObject* source_parent = get_directory(source.parent);
    DirectoryPin source_pin(source_parent);
    DirectoryObject* target_parent = source_parent;
    if (target.parent != source.parent) target_parent = get_directory(target.parent);
    DirectoryPin target_pin(target_parent == source_parent ? nullptr : target_parent);
    source_parent->link_entry(source.leaf, *target_parent, target.leaf);
}

void FileSystemDriver::symlink(const std::u16string& path, const std::u16string& target) {
    SplitPath entry(path);
    DirectoryObject* parent = get_directory(entry.parent);
    DirectoryPin pin(parent);
    parent->symlink_entry(entry.leaf, target);
}

void FileSystemDriver::remove_dir(const std::u16string& path) {
    refuse_if_unchangeable();
    if (path.size() < 2) Common::Raise(ERROR_TAG, Common::Failures::FILE_DELETE);
    DirectoryObject* object = get_directory(path);
    // Someone stands on it: an operation or an open file.
    if (object->references != 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_DELETE);
    {
        DirectoryPin pin(object);
        IteratorObject* first = object->begin();
        if (first != nullptr) {
            delete first;
            Common::Raise(ERROR_TAG, Common::Failures::FILE_DELETE);
        }
    }
    std::uint32_t id = object->id;
    directories.erase(id);
    delete object;
    for (auto entry = path_cache.begin(); entry != path_cache.end();) {
        entry = entry->second == id ? path_cache.erase(entry) : std::next(entry);
    }
    SplitPath split(path);
    DirectoryObject* parent = get_directory(split.parent);
    DirectoryPin pin(parent);
    parent->remove_directory_entry(split.leaf);
}
