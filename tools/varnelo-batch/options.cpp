#include "options.h"

#include <getopt.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "fsutils.h"

namespace Varnelo {

namespace {

const char kHelp[] =
    "usage: varnelo-batch [options] PHOTO|FOLDER|-... -o OUTDIR\n"
    "\n"
    "Makes upload-ready copies of JPEG photos through the varnelo service. Folders are\n"
    "searched for .jpg and .jpeg files (any case); files named directly are taken whatever\n"
    "their names; '-' reads more paths from standard input, one per line. The copies keep\n"
    "the photos' layout below the folder given and are named .jpg. Images of other formats\n"
    "in the folders (HEIC, PNG, camera raw, ...) are named in the report and passed over.\n"
    "\n"
    "Inputs:\n"
    "  -r, --recursive      also search the folders inside the folders (links to folders\n"
    "                       are not followed; the output folder is skipped)\n"
    "      --hidden         also take hidden files and folders (names starting with '.',\n"
    "                       and @eaDir), which are skipped otherwise\n"
    "  -0, --null           the paths read from standard input are separated by NUL bytes\n"
    "Output:\n"
    "  -o, --output DIR     where the copies go (created when missing); must not be one of\n"
    "                       the folders given\n"
    "      --size N         longer side of the copies in pixels, 32..65536 (default 1600);\n"
    "                       a photo not larger than that is copied as it is\n"
    "      --skip-small     make no copy of a photo not larger than --size\n"
    "      --quality Q      JPEG quality of the copies and thumbnails, 0..100 (default 85)\n"
    "      --keep LIST      the metadata the copies keep: a comma-separated list of exif,\n"
    "                       xmp, iptc, icc (the colour profile), comment, other (the other\n"
    "                       application segments), all (the default: every byte) or none.\n"
    "                       The Orientation always stays. Without icc, the colours of\n"
    "                       photos that are not sRGB change (Adobe RGB looks flat)\n"
    "      --strip-location remove what places a photo (GPS position, altitude and\n"
    "                       direction; city, state, country and location names; the\n"
    "                       camera's and lens's serial numbers) and keep the rest of\n"
    "                       what --keep keeps\n"
    "      --omit-exif      the same as --keep icc\n"
    "      --thumbnails     also write NAME_thumb.jpg beside each copy\n"
    "      --thumb-size N   longer side of the thumbnails, 32..65536 (default 72; a photo's\n"
    "                       embedded EXIF thumbnail is used as it is)\n"
    "      --overwrite      replace files at the copies' names that varnelo-batch did not\n"
    "                       make from the same photo (without it those photos fail, unless\n"
    "                       the file there is byte for byte the copy)\n"
    "      --prune          remove the stale files: those varnelo-batch made whose photo\n"
    "                       is gone or that no setting of this run makes, if nobody has\n"
    "                       changed them since (not after an input could not be read)\n"
    "  -n, --dry-run        list what would be done on standard output; change nothing\n"
    "Reporting:\n"
    "      --report FILE    write one row per photo: CSV for *.csv, JSON Lines for *.jsonl,\n"
    "                       a JSON array for *.json (JSON gives a name that is not UTF-8\n"
    "                       with U+FFFD, and its exact bytes in hex in a NAME_hex member)\n"
    "      --hash H         hash of each source's last 2048 bytes for the report: crc32,\n"
    "                       md5 (default) or none\n"
    "  -q, --quiet          print one line per failed photo and nothing else\n"
    "  -v, --verbose        print a line for every photo, also on a terminal, and the\n"
    "                       service's own messages\n"
    "Running:\n"
    "  -j, --jobs N         at most N photos with the service at once (default: about two\n"
    "                       requests of up to 8 photos per service worker)\n"
    "      --service PATH   the varnelo executable (default: the one beside this program)\n"
    "  -h, --help           print this text and exit\n"
    "      --version        print the version and exit\n"
    "\n"
    "A re-run into the same OUTDIR makes only the copies of photos that are new or changed,\n"
    "or whose settings changed (OUTDIR/.varnelo-batch.state records what made each file).\n"
    "Copies are written under a temporary name and renamed into place when complete; they\n"
    "keep their photo's modification time. A file reached twice is converted once.\n"
    "\n"
    "Each photo ends with one status, in the report and the summary: converted, converted\n"
    "with warnings (the photo may be damaged), copied (not larger than --size), adopted\n"
    "(the file at its name already was its copy), up to date, too small (--skip-small: no\n"
    "copy), failed (with the reason), not processed (interrupted first), duplicate (the\n"
    "same file as an earlier path) or not JPEG. Files an earlier run made and this one\n"
    "would not are stale (pruned once removed).\n"
    "\n"
    "Exit status: 0 when no photo failed or was left unprocessed; 1 when any did, or an\n"
    "input could not be read; 2 on bad usage; 130 when interrupted by Ctrl-C (a second\n"
    "Ctrl-C stops at once).\n";

bool ParseNumber(const char* text, long low, long high, long& number) {
    char* end = nullptr;
    errno = 0;
    const long value = std::strtol(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || value < low || value > high) return false;
    number = value;
    return true;
}

bool ParseInt(const char* text, int low, int high, int& number) {
    long value = 0;
    if (!ParseNumber(text, low, high, value)) return false;
    number = static_cast<int>(value);
    return true;
}

const char* HashName(HashChoice hash) {
    switch (hash) {
        case HashChoice::CRC32:
            return "crc32";
        case HashChoice::MD5:
            return "md5";
        case HashChoice::NONE:
            break;
    }
    return "none";
}

}  // namespace

ReportFormat ReportFormatFor(const std::string& path) {
    std::string ext = std::filesystem::path(path).extension().string();
    ToLower(ext);
    if (ext == ".csv") return ReportFormat::CSV;
    if (ext == ".jsonl") return ReportFormat::JSON_LINES;
    if (ext == ".json") return ReportFormat::JSON;
    return ReportFormat::NONE;
}

Invocation Parse(int argc, char** argv) {
    enum {
        SIZE = 256,
        SKIP_SMALL,
        QUALITY,
        KEEP,
        STRIP_LOCATION,
        OMIT_EXIF,
        HASH,
        THUMBNAILS,
        THUMB_SIZE,
        REPORT,
        SERVICE,
        HIDDEN,
        OVERWRITE,
        PRUNE,
        VERSION
    };
    static const option kLong[] = {{"output", required_argument, nullptr, 'o'},
                                   {"recursive", no_argument, nullptr, 'r'},
                                   {"hidden", no_argument, nullptr, HIDDEN},
                                   {"null", no_argument, nullptr, '0'},
                                   {"size", required_argument, nullptr, SIZE},
                                   {"skip-small", no_argument, nullptr, SKIP_SMALL},
                                   {"quality", required_argument, nullptr, QUALITY},
                                   {"keep", required_argument, nullptr, KEEP},
                                   {"strip-location", no_argument, nullptr, STRIP_LOCATION},
                                   {"omit-exif", no_argument, nullptr, OMIT_EXIF},
                                   {"hash", required_argument, nullptr, HASH},
                                   {"thumbnails", no_argument, nullptr, THUMBNAILS},
                                   {"thumb-size", required_argument, nullptr, THUMB_SIZE},
                                   {"overwrite", no_argument, nullptr, OVERWRITE},
                                   {"prune", no_argument, nullptr, PRUNE},
                                   {"dry-run", no_argument, nullptr, 'n'},
                                   {"report", required_argument, nullptr, REPORT},
                                   {"service", required_argument, nullptr, SERVICE},
                                   {"jobs", required_argument, nullptr, 'j'},
                                   {"quiet", no_argument, nullptr, 'q'},
                                   {"verbose", no_argument, nullptr, 'v'},
                                   {"help", no_argument, nullptr, 'h'},
                                   {"version", no_argument, nullptr, VERSION},
                                   {nullptr, 0, nullptr, 0}};
    Invocation invocation;
    Options& options = invocation.options;
    options.program = argc > 0 ? argv[0] : "varnelo-batch";
    auto bad = [&invocation](const std::string& text) {
        invocation.what = Invocation::BAD_USAGE;
        invocation.text = text;
        return invocation;
    };
    auto print = [&invocation](const std::string& text) {
        invocation.what = Invocation::PRINT;
        invocation.text = text;
        return invocation;
    };
    opterr = 0;
    optind = 1;
    int c;
    while ((c = getopt_long(argc, argv, ":o:r0nj:qvh", kLong, nullptr)) != -1) {
        switch (c) {
            case 'o':
                options.outDir = optarg;
                break;
            case 'r':
                options.recursive = true;
                break;
            case HIDDEN:
                options.hidden = true;
                break;
            case '0':
                options.nulSeparated = true;
                break;
            case SIZE:
                if (!ParseInt(optarg, 32, 65536, options.size)) {
                    return bad("--size wants a number of pixels from 32 to 65536");
                }
                break;
            case SKIP_SMALL:
                options.skipSmall = true;
                break;
            case QUALITY:
                if (!ParseInt(optarg, 0, 100, options.quality)) {
                    return bad("--quality wants a number from 0 to 100");
                }
                break;
            case KEEP: {
                std::string problem;
                if (!ParseKeepList(optarg, options.metadata.keep, problem)) return bad(problem);
                break;
            }
            case STRIP_LOCATION:
                options.metadata.stripLocation = true;
                break;
            case OMIT_EXIF:
                options.metadata.keep = KEEP_ICC;
                break;
            case HASH: {
                std::string name = optarg;
                ToLower(name);
                bool known = false;
                for (HashChoice choice : {HashChoice::CRC32, HashChoice::MD5, HashChoice::NONE}) {
                    if (name != HashName(choice)) continue;
                    options.hash = choice;
                    known = true;
                }
                if (!known) return bad("--hash wants crc32, md5 or none");
                break;
            }
            case THUMBNAILS:
                options.thumbnails = true;
                break;
            case THUMB_SIZE:
                if (!ParseInt(optarg, 32, 65536, options.thumbSize)) {
                    return bad("--thumb-size wants a number of pixels from 32 to 65536");
                }
                break;
            case OVERWRITE:
                options.overwrite = true;
                break;
            case PRUNE:
                options.prune = true;
                break;
            case 'n':
                options.dryRun = true;
                break;
            case REPORT:
                options.report = optarg;
                options.reportFormat = ReportFormatFor(options.report);
                if (options.reportFormat == ReportFormat::NONE) {
                    return bad("--report wants a file name ending in .csv, .jsonl or .json");
                }
                break;
            case SERVICE:
                options.service = optarg;
                break;
            case 'j': {
                long jobs = 0;
                if (!ParseNumber(optarg, 1, 100000, jobs)) {
                    return bad("-j wants a number of photos from 1 to 100000");
                }
                options.jobs = static_cast<std::size_t>(jobs);
                break;
            }
            case 'q':
                options.verbosity = 0;
                break;
            case 'v':
                options.verbosity = 2;
                break;
            case 'h':
                return print(kHelp);
            case VERSION:
                return print(std::string("varnelo-batch ") + VARNELO_VERSION +
                             " (protocol version " + std::to_string(kProtocolVersion) + ")\n");
            case ':':
                return bad(std::string("option '") + argv[optind - 1] + "' wants a value");
            default:
                return bad(std::string("unknown option '") + argv[optind - 1] + "'");
        }
    }
    options.inputs.assign(argv + optind, argv + argc);
    if (options.inputs.empty()) return bad("no photo or folder given");
    if (options.outDir.empty()) return bad("no output folder given (-o OUTDIR)");
    return invocation;
}

std::string CopySettings(const Options& options) {
    return "copy size=" + std::to_string(options.size) +
           " quality=" + std::to_string(options.quality) +
           " metadata=" + ChoiceText(options.metadata) + " hash=" + HashName(options.hash);
}

std::string ThumbSettings(const Options& options) {
    return "thumbnail size=" + std::to_string(options.thumbSize) +
           " quality=" + std::to_string(options.quality) +
           ((options.metadata.keep & KEEP_ICC) != 0 ? " profile=kept" : " profile=dropped");
}

// Runs before the metadata choice recorded a copy that kept all of it as "exif=kept", which
// carries the same bytes; their "exif=orientation" copies lost their colour profile and are
// made again.
bool SameSettings(const std::string& recorded, const std::string& current) {
    if (recorded == current) return true;
    const std::string before = " exif=kept ", now = " metadata=all ";
    const std::size_t at = recorded.find(before);
    if (at == std::string::npos) return false;
    std::string upgraded = recorded;
    upgraded.replace(at, before.size(), now);
    return upgraded == current;
}

}  // namespace Varnelo
