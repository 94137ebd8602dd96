#include "FolderWalk.h"

#include "Complaint.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <utility>

namespace {

struct CloseFolder {
    void operator()(DIR *folder) const { ::closedir(folder); }
};

/// Returns zero or an errno.
int readNames(DIR *folder, std::vector<QByteArray> &names)
{
    errno = 0;
    while (const dirent *entry = ::readdir(folder)) {
        const QByteArrayView name(entry->d_name);
        if (name != "." && name != "..")
            names.push_back(name.toByteArray());
        errno = 0;
    }
    return errno;
}

} // namespace

FolderWalk::FolderWalk(std::vector<QByteArray> paths)
{
    m_folders.push_back({{}, std::move(paths)});
}

Source::Next FolderWalk::next(Item &item)
{
    while (!m_folders.empty() && m_folders.back().position == m_folders.back().names.size())
        m_folders.pop_back();
    if (m_folders.empty())
        return End;
    const bool isGiven = m_folders.size() == 1;
    Folder &folder = m_folders.back();
    item = {folder.prefix + folder.names[folder.position++], 0, {}, {}};

    struct stat status;
    // A path that cannot be looked at counts as a file: opening it will tell the reason.
    if ((isGiven ? ::stat : ::lstat)(item.path.constData(), &status) != 0)
        return File;
    if (S_ISDIR(status.st_mode))
        return enter(item);
    item.size = status.st_size;
    return isGiven || S_ISREG(status.st_mode) ? File : Nothing;
}

Source::Next FolderWalk::enter(Item &item)
{
    const std::unique_ptr<DIR, CloseFolder> folder(::opendir(item.path.constData()));
    std::vector<QByteArray> names;
    const int error = folder ? readNames(folder.get(), names) : errno;
    std::sort(names.begin(), names.end());
    m_folders.push_back({item.path.endsWith('/') ? item.path : item.path + '/', std::move(names)});
    if (error == 0)
        return Nothing;
    item.problem = reasonOf(error);
    return Problem;
}
