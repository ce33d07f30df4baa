#include "metadata.h"

#include <sstream>

#include "orientation.h"

namespace Varnelo {

namespace {

struct GroupName {
    const char* name;
    unsigned groups;
};

const GroupName kGroups[] = {
    {"exif", KEEP_EXIF},       {"xmp", KEEP_XMP},     {"iptc", KEEP_IPTC}, {"icc", KEEP_ICC},
    {"comment", KEEP_COMMENT}, {"other", KEEP_OTHER}, {"all", KEEP_ALL},   {"none", KEEP_NONE},
};

}  // namespace

bool ParseKeepList(const std::string& list, unsigned& keep, std::string& problem) {
    unsigned groups = KEEP_NONE;
    std::istringstream words(list);
    std::string word;
    bool any = false;
    while (std::getline(words, word, ',')) {
        bool known = false;
        for (const GroupName& g : kGroups) {
            if (word == g.name) {
                groups |= g.groups;
                known = true;
            }
        }
        if (!known) {
            problem = "--keep: '" + word +
                      "' is not one of exif, xmp, iptc, icc, comment, other, all, none";
            return false;
        }
        any = true;
    }
    if (!any) {
        problem = "--keep needs a list such as exif,icc";
        return false;
    }
    keep = groups;
    return true;
}

std::string ChoiceText(const MetadataChoice& choice) {
    std::string text;
    for (const GroupName& g : kGroups) {
        if (g.groups == KEEP_ALL || g.groups == KEEP_NONE) continue;
        if ((choice.keep & g.groups) == 0) continue;
        text += (text.empty() ? "" : ",") + std::string(g.name);
    }
    if (choice.keep == KEEP_ALL) text = "all";
    if (text.empty()) text = "none";
    return text + (choice.stripLocation ? " location=stripped" : "");
}

// Placeholders until the rewriting lands.
MetadataOutcome RewriteMetadata(std::string&, const MetadataChoice&) {
    return {"metadata rewriting is not built yet", {}};
}

MetadataOutcome DressThumbnail(std::string& thumb, const std::string&, const MetadataChoice&) {
    (void)thumb;
    return {"metadata rewriting is not built yet", {}};
}

}  // namespace Varnelo
