#include "convert_plan.h"
#include "recording_name.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <map>

#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tools {
namespace {

namespace fs = std::filesystem;
namespace cause = cli::cause;

bool refuse(std::string& why, const std::string& reason)
{
    why = reason;
    return false;
}

void refuse_job(Job& job, cli::Exit exit, const char* code, const std::string& cause)
{
    job.refused.exit = exit;
    job.refused.code = code;
    job.refused.cause = job.input + ": " + cause;
}

bool is_refused(const Job& job)
{
    return !job.refused.cause.empty();
}

bool is_folder(const std::string& path)
{
    std::error_code error;
    return fs::is_directory(path, error);
}

// ---- inputs

struct Found
{
    std::string path;
    fs::path folder; // where below the folder that was named; empty for a recording that was named itself
};

struct Search
{
    const PlanRequest& request;
    fs::path root;
    std::vector<fs::path> folders{}; // to be read yet
    std::vector<Found> found{};
    std::vector<std::pair<fs::path, std::string>> unreadable{}; // folders, and why
    std::vector<std::string> notes{};
};

// What a link leads to is taken where it is a recording. A folder is not: it may lead back to one above it.
void look_at(Search& search, const fs::directory_entry& entry)
{
    const fs::path& path = entry.path();
    const bool recording = strcasecmp(path.extension().c_str(), ".sdv") == 0;
    std::error_code error, unknown;
    const bool link = entry.is_symlink(unknown);
    const fs::file_type type = fs::status(path, error).type();
    if (link && type == fs::file_type::directory) {
        if (search.request.recurse || recording)
            search.notes.push_back(path.string() + ": a link to a folder, which is not followed");
    } else if (entry.is_directory(unknown)) {
        if (search.request.recurse) search.folders.push_back(path);
    } else if (recording && link && type == fs::file_type::not_found) {
        search.notes.push_back(path.string() + ": a link that leads nowhere");
    } else if (recording && type != fs::file_type::regular && !error) {
        search.notes.push_back(path.string() + ": no regular file, and left out");
    } else if (recording) {
        search.found.push_back({path.string(), path.parent_path().lexically_proximate(search.root)});
    }
}

// What was found stands even where reading on failed.
void search_folder(Search& search, const fs::path& folder)
{
    std::error_code error;
    for (fs::directory_iterator at(folder, error), end; !error && at != end; at.increment(error))
        look_at(search, *at);
    if (error) search.unreadable.push_back({folder, error.message()});
}

void search_all(Search& search)
{
    search.folders = {search.root};
    while (!search.folders.empty()) {
        const fs::path folder = search.folders.back();
        search.folders.pop_back();
        search_folder(search, folder);
    }
    std::sort(search.found.begin(), search.found.end(),
              [](const Found& a, const Found& b) { return a.path < b.path; });
    std::sort(search.unreadable.begin(), search.unreadable.end());
    std::sort(search.notes.begin(), search.notes.end());
}

// The input's first bytes, as many as it has up to a file header's size. False, and errno, when they cannot
// be read.
bool read_head(int fd, std::vector<uint8_t>& head)
{
    size_t held = 0;
    head.resize(sizeof(S_FileHeader));
    while (held < head.size()) {
        const ssize_t got = read(fd, &head[held], head.size() - held);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return false;
        if (got == 0) break;
        held += size_t(got);
    }
    head.resize(held);
    return true;
}

// Of what cannot be sought, too little is seen to find a frame: who gives a header for it knows what it is.
void read_start(Job& job, int fd, const sdv::Like& like)
{
    std::vector<uint8_t> head;
    if (!read_head(fd, head))
        return refuse_job(job, cli::Failed, cause::CannotRead,
                          "cannot be read: " + std::string(strerror(errno)));
    const off_t at = lseek(fd, 0, SEEK_CUR);
    sdv::Beginning beginning = sdv::look_at_start(fd, at < 0 ? -1 : at - off_t(head.size()), head);
    if (beginning.start == sdv::Start::Recording) return (void)memcpy(&job.header, head.data(), head.size());

    const bool given = !like.path.empty();
    if (given && at < 0 && beginning.start == sdv::Start::Other)
        beginning = {sdv::Start::HeaderLost, 0, uint32_t(GetFrameFlagByMode(like.header.Mode))};
    std::string why = start_text(beginning.start);
    if (!given || beginning.start != sdv::Start::HeaderLost ||
        !borrow_header(like, beginning, job.header, why)) {
        return refuse_job(job, cli::NoRecording, start_code(beginning.start), why);
    }
    job.notes.push_back(sdv::borrowed_text(like.path));
    job.ahead = head;
}

void read_input(Job& job, const sdv::Like& like)
{
    const bool standard = job.input == "-";
    const int fd = standard ? STDIN_FILENO : open(job.input.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    struct stat status
    {
    };
    if (fd < 0 || fstat(fd, &status) != 0)
        refuse_job(job, cli::Failed, cause::CannotRead, strerror(errno));
    else if (!standard && !S_ISREG(status.st_mode))
        refuse_job(job, cli::NoRecording, cause::NoRecording,
                   "is no regular file (- reads a stream from standard input)");
    else
        read_start(job, fd, like);
    if (S_ISREG(status.st_mode)) {
        job.rights = status.st_mode & 0666;
        job.modified = status.st_mtim;
    }
    if (!standard) job.size = uint64_t(status.st_size);
    if (!standard && fd >= 0) close(fd);
}

// ---- outputs

fs::path output_name(const PlanRequest& request, Job& job)
{
    const auto start = start_of(job.header);
    if (request.nameByStart && start) return date_name(*start) + ".avi";
    if (request.nameByStart) job.notes.push_back("there is no date in its header: it keeps its name");
    return fs::path(job.input).filename().replace_extension(".avi");
}

// Names that lead to the same file give the same text.
std::string identity(const std::string& path)
{
    std::error_code error;
    const fs::path whole = fs::weakly_canonical(fs::absolute(path, error).parent_path(), error);
    return (whole / fs::path(path).filename()).string();
}

// Several channels of a recorder begin in the same second: as sdvrecord does, number those behind the first.
void number_starts(std::vector<Job>& jobs)
{
    std::map<std::string, int> taken;
    for (Job& job : jobs) {
        if (is_refused(job) || !start_of(job.header)) continue;
        const int number = ++taken[identity(job.output)];
        const fs::path name = job.output;
        if (number > 1)
            job.output = (name.parent_path() / name.stem()).string() + "-" + std::to_string(number) + ".avi";
    }
}

// All that would get one name: whoever named them so has to say which is meant.
void refuse_clashes(std::vector<Job>& jobs)
{
    std::map<std::string, std::vector<Job*>> outputs;
    for (Job& job : jobs)
        if (!is_refused(job)) outputs[identity(job.output)].push_back(&job);
    for (const auto& [name, clashing] : outputs)
        for (Job* job : clashing) {
            if (clashing.size() == 1) continue;
            const Job* other = clashing[clashing[0] == job ? 1 : 0];
            refuse_job(*job, cli::Usage, cause::NameClash,
                       "it and " + other->input + " would both become " + job->output);
        }
}

void refuse_inputs_as_outputs(const PlanRequest& request, std::vector<Job>& jobs)
{
    std::map<std::pair<dev_t, ino_t>, std::string> inputs;
    struct stat status
    {
    };
    for (const Job& job : jobs)
        if (stat(job.input.c_str(), &status) == 0)
            inputs[{status.st_dev, status.st_ino}] = "the input " + job.input;
    if (stat(request.keyFile.c_str(), &status) == 0) inputs[{status.st_dev, status.st_ino}] = "the key file";
    if (stat(request.like.path.c_str(), &status) == 0)
        inputs[{status.st_dev, status.st_ino}] = "that of --like";
    for (Job& job : jobs) {
        if (is_refused(job) || stat(job.output.c_str(), &status) != 0) continue;
        const auto input = inputs.find({status.st_dev, status.st_ino});
        if (input != inputs.end())
            refuse_job(job, cli::Usage, cause::SameFile,
                       "the output " + job.output + " is the same file as " + input->second);
    }
}

void make_folders(std::vector<Job>& jobs)
{
    for (Job& job : jobs) {
        std::error_code error;
        const fs::path folder = fs::path(job.output).parent_path();
        if (!is_refused(job) && !folder.empty()) fs::create_directories(folder, error);
        if (error)
            refuse_job(job, cli::NoOutput, cause::CannotWrite, folder.string() + ": " + error.message());
    }
}

void add_job(const PlanRequest& request, const Found& found, bool intoFolder, std::vector<Job>& jobs)
{
    Job& job = jobs.emplace_back();
    job.input = found.path;
    read_input(job, request.like);
    if (!intoFolder && !request.output.empty()) {
        job.output = request.output;
        return;
    }
    fs::path folder = intoFolder ? fs::path(request.output) : fs::path(found.path).parent_path();
    if (intoFolder && found.folder != ".") folder /= found.folder;
    job.output = (folder / output_name(request, job)).string();
}

void add_folder(const PlanRequest& request, const std::string& folder, bool intoFolder, Plan& plan)
{
    Search search{request, folder};
    search_all(search);
    for (const Found& one : search.found) add_job(request, one, intoFolder, plan.jobs);
    for (const auto& [path, why] : search.unreadable) {
        Job& job = plan.jobs.emplace_back();
        job.input = path.string();
        refuse_job(job, cli::Failed, cause::CannotRead, why);
    }
    plan.notes.insert(plan.notes.end(), search.notes.begin(), search.notes.end());
    if (!search.found.empty() || !search.unreadable.empty()) return;
    Job& job = plan.jobs.emplace_back();
    job.input = folder;
    refuse_job(job, cli::NoRecording, cause::NoRecording, "there is no *.sdv in it");
}

bool check_request(const PlanRequest& request, bool intoFolder, std::string& why)
{
    if (request.output == "-")
        return refuse(why, "an AVI file cannot go to standard output: what stands at its start is known at "
                           "its end");
    const auto standard = std::count(request.inputs.begin(), request.inputs.end(), "-");
    if (standard > 1) return refuse(why, "standard input can be read once only");
    if (standard && (request.output.empty() || (intoFolder && !request.nameByStart)))
        return refuse(why, "standard input has no name: -o FILE is needed, or --start-time with -o DIR");
    if (request.nameByStart && !request.output.empty() && !intoFolder)
        return refuse(why, "--start-time names the output: -o is to be a folder");
    return true;
}

} // namespace

bool plan_jobs(const PlanRequest& request, Plan& plan, std::string& why)
{
    bool many = request.inputs.size() > 1;
    for (const std::string& input : request.inputs) many |= is_folder(input);
    const std::string& output = request.output;
    std::error_code error;
    const bool intoFolder =
        !output.empty() &&
        (many || is_folder(output) || output.ends_with('/') ||
         (request.nameByStart && fs::path(output).extension() != ".avi" && !fs::exists(output, error)));
    if (!check_request(request, intoFolder, why)) return false;

    for (const std::string& input : request.inputs)
        is_folder(input) ? add_folder(request, input, intoFolder, plan)
                         : add_job(request, {input, {}}, intoFolder, plan.jobs);
    if (request.nameByStart) number_starts(plan.jobs);
    refuse_clashes(plan.jobs);
    refuse_inputs_as_outputs(request, plan.jobs);
    if (intoFolder) make_folders(plan.jobs);
    return true;
}

} // namespace tools
