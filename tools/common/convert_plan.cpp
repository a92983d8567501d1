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

bool refuse(std::string& why, const std::string& reason)
{
    why = reason;
    return false;
}

void refuse_job(Job& job, cli::Exit code, const std::string& cause)
{
    job.refused.exit = code;
    job.refused.cause = job.input + ": " + cause;
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

// What was found stands even where reading on failed.
template <typename Iterator>
std::vector<Found> find_with(const fs::path& root, std::error_code& error)
{
    std::vector<Found> found;
    for (Iterator at(root, fs::directory_options::skip_permission_denied, error), end; !error && at != end;
         at.increment(error)) {
        const fs::path& path = at->path();
        std::error_code ignored;
        if (strcasecmp(path.extension().c_str(), ".sdv") == 0 && at->is_regular_file(ignored))
            found.push_back({path.string(), path.parent_path().lexically_proximate(root)});
    }
    std::sort(found.begin(), found.end(), [](const Found& a, const Found& b) { return a.path < b.path; });
    return found;
}

// False with errno 0 when it was read, and is none of a recording.
bool read_header(int fd, S_FileHeader& header)
{
    size_t held = 0;
    errno = 0;
    while (held < sizeof(header)) {
        const ssize_t got = read(fd, reinterpret_cast<char*>(&header) + held, sizeof(header) - held);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return false;
        errno = 0;
        if (got == 0) break;
        held += size_t(got);
    }
    return held == sizeof(header) && IsValidFileHeader(&header);
}

void read_input(Job& job)
{
    const bool standard = job.input == "-";
    const int fd = standard ? STDIN_FILENO : open(job.input.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    struct stat status
    {
    };
    if (fd < 0 || fstat(fd, &status) != 0)
        refuse_job(job, cli::Failed, strerror(errno));
    else if (!standard && !S_ISREG(status.st_mode))
        refuse_job(job, cli::NoRecording, "is no regular file (- reads a stream from standard input)");
    else if (!read_header(fd, job.header))
        errno ? refuse_job(job, cli::Failed, "cannot be read: " + std::string(strerror(errno)))
              : refuse_job(job, cli::NoRecording, "is no SDV recording");
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
        if (!job.refused.cause.empty() || !start_of(job.header)) continue;
        const int number = ++taken[identity(job.output)];
        const fs::path name = job.output;
        if (number > 1)
            job.output = (name.parent_path() / name.stem()).string() + "-" + std::to_string(number) + ".avi";
    }
}

bool check_names(const std::vector<Job>& jobs, std::string& why)
{
    std::map<std::string, const Job*> outputs;
    std::map<std::pair<dev_t, ino_t>, const Job*> inputs;
    struct stat status
    {
    };
    for (const Job& job : jobs)
        if (stat(job.input.c_str(), &status) == 0) inputs[{status.st_dev, status.st_ino}] = &job;
    for (const Job& job : jobs) {
        if (!job.refused.cause.empty()) continue;
        const auto [other, isNew] = outputs.emplace(identity(job.output), &job);
        if (!isNew)
            return refuse(why,
                          other->second->input + " and " + job.input + " would both become " + job.output);
        if (stat(job.output.c_str(), &status) != 0) continue;
        const auto input = inputs.find({status.st_dev, status.st_ino});
        if (input != inputs.end())
            return refuse(why, job.output + ": is the same file as the input " + input->second->input);
    }
    return true;
}

void make_folders(std::vector<Job>& jobs)
{
    for (Job& job : jobs) {
        std::error_code error;
        const fs::path folder = fs::path(job.output).parent_path();
        if (job.refused.cause.empty() && !folder.empty()) fs::create_directories(folder, error);
        if (error) refuse_job(job, cli::NoOutput, folder.string() + ": " + error.message());
    }
}

void add_job(const PlanRequest& request, const Found& found, bool intoFolder, std::vector<Job>& jobs)
{
    Job& job = jobs.emplace_back();
    job.input = found.path;
    read_input(job);
    if (!intoFolder && !request.output.empty()) {
        job.output = request.output;
        return;
    }
    fs::path folder = intoFolder ? fs::path(request.output) : fs::path(found.path).parent_path();
    if (intoFolder && found.folder != ".") folder /= found.folder;
    job.output = (folder / output_name(request, job)).string();
}

void add_folder(const PlanRequest& request, const std::string& folder, bool intoFolder,
                std::vector<Job>& jobs)
{
    std::error_code error;
    const auto found = request.recurse ? find_with<fs::recursive_directory_iterator>(folder, error)
                                       : find_with<fs::directory_iterator>(folder, error);
    for (const Found& one : found) add_job(request, one, intoFolder, jobs);
    if (!error && !found.empty()) return;
    Job& job = jobs.emplace_back();
    job.input = folder;
    refuse_job(job, error ? cli::Failed : cli::NoRecording,
               error ? error.message() : "there is no *.sdv in it");
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

bool plan_jobs(const PlanRequest& request, std::vector<Job>& jobs, std::string& why)
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
        is_folder(input) ? add_folder(request, input, intoFolder, jobs)
                         : add_job(request, {input, {}}, intoFolder, jobs);
    if (request.nameByStart) number_starts(jobs);
    if (!check_names(jobs, why)) return false;
    if (intoFolder) make_folders(jobs);
    return true;
}

} // namespace tools
