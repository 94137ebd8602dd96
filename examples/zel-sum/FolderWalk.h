#pragma once

#include "Source.h"

#include <vector>

/**
 * The regular files under the given paths, in the order of the paths, within a folder in the order of the bytes of the
 * names.
 *
 * A symbolic link that was given is followed, one that is found in a folder is left out: so no file comes twice and
 * there are no loops. Something else than a file, such as a pipe, counts where it was given.
 */
class FolderWalk : public Source {
public:
    explicit FolderWalk(std::vector<QByteArray> paths);

    Next next(Item &item) override;

private:
    struct Folder {
        QByteArray prefix; ///< goes before each name
        std::vector<QByteArray> names;
        size_t position = 0; ///< of the first name that was not looked at yet
    };

    Next enter(Item &item);

    /// From the outermost to the innermost; the first one holds the given paths.
    std::vector<Folder> m_folders;
};
