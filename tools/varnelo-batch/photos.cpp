#include "photos.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>

#include "fsutils.h"

namespace fs = std::filesystem;

namespace Varnelo {

namespace {

std::string Lower(std::string text) {
    ToLower(text);
    return text;
}

std::string Quoted(const std::string& text) { return "'" + text + "'"; }

bool IsJpegName(const fs::path& path) {
    const std::string ext = Lower(path.extension().string());
    return ext == ".jpg" || ext == ".jpeg";
}

// A file found under an input: where it is, and its place relative to the input.
struct Found {
    fs::path path;
    fs::path relative;
};

bool ListFolder(const fs::path& folder, bool recursive, const fs::path& outDir,
                std::vector<Found>& found, std::string& error) {
    std::error_code ec;
    std::vector<Found> here;
    fs::path current = folder;  // the folder the next error would be about
    fs::recursive_directory_iterator it(folder, ec), end;
    for (; !ec && it != end; it.increment(ec)) {
        const fs::directory_entry& entry = *it;
        std::error_code typeError;
        if (entry.is_directory(typeError)) {
            if (!recursive || fs::weakly_canonical(entry.path(), typeError) == outDir) {
                it.disable_recursion_pending();
            } else {
                current = entry.path();
            }
        } else if (entry.is_regular_file(typeError) && IsJpegName(entry.path())) {
            here.push_back({entry.path(), entry.path().lexically_relative(folder)});
        }
    }
    if (ec) {
        error = "cannot read the folder " + Quoted(current.string()) + ": " + ec.message();
        return false;
    }
    std::sort(here.begin(), here.end(), [](const Found& a, const Found& b) {
        return strcmpdig(a.relative.c_str(), b.relative.c_str()) < 0;
    });
    found.insert(found.end(), here.begin(), here.end());
    return true;
}

}  // namespace

bool FindPhotos(const std::vector<std::string>& inputs, bool recursive, const std::string& outDir,
                std::vector<Photo>& photos, std::string& error) {
    std::vector<Found> found;
    for (const std::string& input : inputs) {
        std::error_code ec;
        const fs::file_status status = fs::status(input, ec);
        if (ec || !fs::exists(status)) {
            error = "cannot read " + Quoted(input) + ": " +
                    (ec ? ec.message() : std::string(std::strerror(ENOENT)));
            return false;
        }
        if (fs::is_directory(status)) {
            if (!ListFolder(input, recursive, outDir, found, error)) return false;
        } else if (access(input.c_str(), R_OK) != 0) {
            error = "cannot read " + Quoted(input) + ": " + std::strerror(errno);
            return false;
        } else {
            found.push_back({input, fs::path(input).filename()});
        }
    }
    std::set<std::string> seen;
    for (const Found& f : found) {
        std::error_code ec;
        const fs::path real = fs::canonical(f.path, ec);
        if (!seen.insert(ec ? f.path.string() : real.string()).second) continue;
        Photo photo;
        photo.source = ec ? fs::absolute(f.path).lexically_normal().string() : real.string();
        photo.shown = f.path.string();
        photo.relative = f.relative.string();
        photo.bytes = fs::file_size(f.path, ec);
        photo.unreadable = access(photo.source.c_str(), R_OK) != 0;
        photos.push_back(photo);
    }
    return true;
}

// The copy always ends in ".jpg", which the service takes as the file to write (for any other
// name it would write into a folder of that name). Names are compared without case so that
// IMG.JPG and img.jpeg, or a photo and another's thumbnail, never share a file, not even on
// a file system that ignores case; the sources themselves are never written over. Photos
// already named ".jpg" choose first, so they keep their names.
void NameCopies(const std::string& outDir, const std::string& outShown, bool thumbnails,
                std::vector<Photo>& photos) {
    std::set<std::string> taken;
    for (const Photo& photo : photos) taken.insert(Lower(photo.source));
    std::vector<Photo*> order;
    for (Photo& photo : photos) order.push_back(&photo);
    std::stable_partition(order.begin(), order.end(), [](const Photo* photo) {
        return fs::path(photo->relative).extension() == ".jpg";
    });
    for (Photo* const entry : order) {
        Photo& photo = *entry;
        const fs::path relative = photo.relative;
        const fs::path folder = (fs::path(outDir) / relative.parent_path()).lexically_normal();
        const std::string stem = relative.stem().string();
        for (int n = 1;; ++n) {
            const std::string name = n == 1 ? stem : stem + "-" + std::to_string(n);
            const std::string copy = (folder / (name + ".jpg")).string();
            const std::string thumb = thumbnails ? (folder / (name + "_thumb.jpg")).string() : "";
            if (taken.count(Lower(copy)) != 0 || (thumbnails && taken.count(Lower(thumb)) != 0)) {
                continue;
            }
            taken.insert(Lower(copy));
            taken.insert(Lower(thumb));
            photo.output = copy;
            photo.thumbnail = thumb;
            photo.outShown = (fs::path(outShown) / relative.parent_path() / (name + ".jpg"))
                                 .lexically_normal()
                                 .string();
            break;
        }
    }
}

// The service itself would create only the last level of a missing folder.
bool MakeFolders(const std::string& outDir, const std::vector<Photo>& photos, std::string& error) {
    std::set<fs::path> folders = {outDir};
    for (const Photo& photo : photos) folders.insert(fs::path(photo.output).parent_path());
    for (const fs::path& folder : folders) {
        std::error_code ec;
        fs::create_directories(folder, ec);
        if (!ec && !fs::is_directory(folder, ec)) {
            ec = std::make_error_code(std::errc::not_a_directory);
        }
        if (!ec && access(folder.c_str(), W_OK | X_OK) != 0) {
            ec.assign(errno, std::generic_category());
        }
        if (ec) {
            error =
                "cannot create the output folder " + Quoted(folder.string()) + ": " + ec.message();
            return false;
        }
    }
    return true;
}

ReportFormat ReportFormatFor(const std::string& path) {
    const std::string ext = Lower(fs::path(path).extension().string());
    if (ext == ".csv") return ReportFormat::CSV;
    if (ext == ".jsonl" || ext == ".json") return ReportFormat::JSON_LINES;
    return ReportFormat::NONE;
}

namespace {

std::string Csv(const std::string& text) {
    if (text.find_first_of(",\"\r\n") == std::string::npos) return text;
    std::string out = "\"";
    for (const char c : text) out += c == '"' ? std::string("\"\"") : std::string(1, c);
    return out + "\"";
}

// A JSON string, or null for an empty text.
std::string Json(const std::string& text) {
    if (text.empty()) return "null";
    std::string out = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (static_cast<unsigned char>(c) < 0x20) {
            char escape[8];
            std::snprintf(escape, sizeof(escape), "\\u%04x", c);
            out += escape;
        } else {
            out += c;
        }
    }
    return out + "\"";
}

}  // namespace

bool WriteReport(const std::string& path, ReportFormat format, bool thumbnails,
                 const std::vector<Photo>& photos) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    const bool csv = format == ReportFormat::CSV;
    const std::vector<std::string> names = {"source",
                                            "output",
                                            "success",
                                            "failure_reason",
                                            "width",
                                            "height",
                                            "hash",
                                            "output_bytes",
                                            "thumbnail",
                                            "thumbnail_success",
                                            "thumbnail_failure_reason"};
    const std::size_t columns = thumbnails ? names.size() : 8;
    if (csv) {
        for (std::size_t i = 0; i < columns; ++i) out << (i ? "," : "") << names[i];
        out << "\n";
    }
    for (const Photo& p : photos) {
        if (!p.copy.done) continue;
        const ImageResult& c = p.copy;
        auto number = [&](long long n, bool known) {
            return known ? std::to_string(n) : csv ? "" : "null";
        };
        auto flag = [](bool b) { return std::string(b ? "true" : "false"); };
        auto text = [&](const std::string& s) { return csv ? Csv(s) : Json(s); };
        const std::string values[] = {text(p.source),
                                      text(c.success ? p.output : ""),
                                      flag(c.success),
                                      text(c.reason),
                                      number(c.width, c.width >= 0),
                                      number(c.height, c.width >= 0),
                                      text(c.hash),
                                      number(static_cast<long long>(c.outputBytes), c.success),
                                      text(p.thumb.success ? p.thumbnail : ""),
                                      flag(p.thumb.success),
                                      text(p.thumb.reason)};
        for (std::size_t i = 0; i < columns; ++i) {
            if (csv) {
                out << (i ? "," : "") << values[i];
            } else {
                out << (i ? ",\"" : "{\"") << names[i] << "\":" << values[i];
            }
        }
        out << (csv ? "\n" : "}\n");
    }
    out.close();
    return static_cast<bool>(out);
}

}  // namespace Varnelo
