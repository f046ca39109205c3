// SPDX-License-Identifier: Apache-2.0
//
// libdebuginfod takes its servers from the environment and does not tell which of several failed, so each is asked alone: then
// it is known who is silent or sends something else, and that one is not asked again. It is loaded when it is first needed: with it
// come libcurl and twenty other libraries.
#include "elf/debuginfod.h"

#include "elf/build_id.h"
#include "failure.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <filesystem>
#include <fmt/format.h>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <sstream>
#include <type_traits>
#include <unistd.h>
#include <utility>

namespace krv_elf_loader
{

namespace
{

namespace fs = std::filesystem;
using seconds = std::chrono::seconds;
using steady = std::chrono::steady_clock;

constexpr char CLIENT_LIBRARY[] = "libdebuginfod.so.1";
constexpr char URLS[] = "DEBUGINFOD_URLS";
constexpr char GIVEN_UP[] = "it was given up";
constexpr unsigned int MOST_SILENT_SECONDS = 10, MOST_SECONDS = 600; // unless somebody says otherwise

// What a privileged program is told by its environment is not believed.
std::string from_environment(const char *name)
{
    const char *value = secure_getenv(name);
    return value == nullptr ? "" : value;
}

const char *name_of(file_kind kind)
{
    return kind == file_kind::executable ? "executable" : "debuginfo";
}

// When the cache took an empty file for one that no server had.
std::optional<fs::file_time_type> time_of_miss(const std::string &path)
{
    std::error_code failed;
    if (!fs::is_regular_file(path, failed) || fs::file_size(path, failed) != 0)
        return std::nullopt;
    const fs::file_time_type time = fs::last_write_time(path, failed);
    return failed ? std::nullopt : std::optional(time);
}

std::optional<fs::file_time_type> time_of_miss(const std::vector<std::string> &paths)
{
    for (const std::string &path : paths)
        if (const auto time = time_of_miss(path))
            return time;
    return std::nullopt;
}

void forget_miss(const std::vector<std::string> &paths)
{
    std::error_code ignored;
    for (const std::string &path : paths)
        if (time_of_miss(path))
            fs::remove(path, ignored);
}

// Declared as <elfutils/debuginfod.h> does, which need not be there.
struct debuginfod_client;
using progress_function = int (*)(debuginfod_client *client, long done, long all);
using find_function = int (*)(debuginfod_client *client, const unsigned char *id, int size, char **path);

struct client_library {
    debuginfod_client *(*begin)() = nullptr;
    void (*set_progress)(debuginfod_client *client, progress_function func) = nullptr;
    void (*set_user_data)(debuginfod_client *client, void *data) = nullptr;
    void *(*get_user_data)(debuginfod_client *client) = nullptr;
    const char *(*get_url)(debuginfod_client *client) = nullptr;
    find_function find_debuginfo = nullptr;
    find_function find_executable = nullptr;
    std::string problem; // "": it is loaded

    client_library();
    static const client_library &get();
};

// Found by its name: a reference to dlopen makes the linker warn whoever links statically, and there it is not to be used.
client_library::client_library()
{
    using open_function = void *(*)(const char *name, int flags);
    const auto open = reinterpret_cast<open_function>(dlsym(RTLD_DEFAULT, "dlopen"));
    if (open == nullptr) {
        problem = "a program that is linked statically does not load it";
        return;
    }
    void *const library = open(CLIENT_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    const char *why = library == nullptr ? dlerror() : nullptr;
    const auto find = [&](const char *name, auto *function) {
        if (why != nullptr)
            return;
        *function = reinterpret_cast<std::remove_pointer_t<decltype(function)>>(dlsym(library, name));
        if (*function == nullptr)
            why = dlerror();
    };
    find("debuginfod_begin", &begin);
    find("debuginfod_set_progressfn", &set_progress);
    find("debuginfod_set_user_data", &set_user_data);
    find("debuginfod_get_user_data", &get_user_data);
    find("debuginfod_get_url", &get_url);
    find("debuginfod_find_debuginfo", &find_debuginfo);
    find("debuginfod_find_executable", &find_executable);
    if (why != nullptr)
        problem = why;
}

const client_library &client_library::get()
{
    static const client_library loaded;
    return loaded;
}

// A server, with what is known of it in this process. It is never freed: a connection may outlive who asked.
struct server {
    debuginfod_client *client = nullptr;
    std::string problem; // why it is not asked again
};

std::mutex one_at_a_time; // guards the servers and the environment

std::map<std::string, server> &known_servers()
{
    static auto *const all = new std::map<std::string, server>;
    return *all;
}

// While it lives, one server is all that the environment names. That of glibc stays readable by other threads: what
// was in the place of the value is never freed.
class only_server
{
public:
    only_server(const std::string &url, const std::string &servers) : all(servers) { setenv(URLS, url.c_str(), 1); }
    ~only_server() { setenv(URLS, all.c_str(), 1); }
    only_server(const only_server &) = delete;
    only_server &operator=(const only_server &) = delete;

private:
    const std::string &all;
};

unsigned int silent_seconds()
{
    const std::string text = from_environment("DEBUGINFOD_TIMEOUT");
    unsigned int count = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), count);
    return error == std::errc() && end == text.data() + text.size() && count != 0 ? count : MOST_SILENT_SECONDS;
}

// One request to one server, watched.
class request
{
public:
    request(const std::string &file_url, const search_settings &from)
        : url(file_url), where(from), most_silent(silent_seconds()),
          most(from.seconds != 0 ? from.seconds : MOST_SECONDS)
    {
    }

    // The path, or nothing: see the rest.
    std::optional<std::string> send(server *to, byte_span id, file_kind kind);

    std::string problem;        // "": the server does not have it
    bool server_failed = false; // it is not to be asked again

private:
    static int watch(debuginfod_client *client, long done, long);
    bool go_on(uint64_t done, bool is_sending);
    bool tell(uint64_t done, uint64_t all) const;
    void judge(int error);
    std::string was_silent() const { return fmt::format("silent for {} s", most_silent.count()); }

    const std::string &url;
    const search_settings &where;
    const seconds most_silent, most;
    const steady::time_point begun = steady::now();
    steady::time_point heard = begun;
    uint64_t received = 0;
    bool is_ended = false; // by us
};

bool request::tell(uint64_t done, uint64_t all) const
{
    const krv_elf_fetch_t shown = {.url = url.c_str(), .received = done, .size = all, .is_over = 0, .error = ""};
    return where.fetch == nullptr || where.fetch(&shown, where.fetch_arg) == 0;
}

bool request::go_on(uint64_t done, bool is_sending)
{
    const auto now = steady::now();
    if (is_sending && done != received)
        heard = now;
    received = is_sending ? done : 0;
    if (now - heard >= most_silent)
        problem = was_silent();
    else if (now - begun >= most)
        problem = fmt::format("it takes longer than {} s", most.count());
    server_failed = !problem.empty();
    return problem.empty();
}

// Before a server sends, libdebuginfod counts its own steps. Nothing is thrown through it.
int request::watch(debuginfod_client *client, long done, long all)
{
    const client_library &library = client_library::get();
    auto *const self = static_cast<request *>(library.get_user_data(client));
    const bool is_sending = library.get_url(client) != nullptr;
    const auto count = static_cast<uint64_t>(std::max(done, 0L)), size = static_cast<uint64_t>(std::max(all, 0L));
    const bool goes_on = guarded(nullptr, false, [&] {
        if (self->is_ended || !self->go_on(count, is_sending))
            return false;
        if (self->tell(self->received, is_sending ? size : 0))
            return true;
        self->problem = GIVEN_UP;
        return false;
    });
    self->is_ended = !goes_on;
    return goes_on ? 0 : 1;
}

// An error of libdebuginfod, which is one of the system.
void request::judge(int error)
{
    if (is_ended || error == ENOENT)
        return;
    problem = error != ETIME ? std::strerror(error) : received == 0 ? was_silent() : "too slow";
    server_failed = error == ETIME || error == ETIMEDOUT || error == EHOSTUNREACH || error == ECONNREFUSED ||
                    error == ECONNRESET || error == EINVAL || error == EMLINK;
}

std::optional<std::string> request::send(server *to, byte_span id, file_kind kind)
{
    const client_library &library = client_library::get();
    if (to->client == nullptr)
        to->client = library.begin();
    if (to->client == nullptr)
        throw std::bad_alloc();
    if (!tell(0, 0)) {
        problem = GIVEN_UP;
        return std::nullopt;
    }
    library.set_progress(to->client, watch);
    library.set_user_data(to->client, this);
    char *path = nullptr;
    const int fd = (kind == file_kind::executable ? library.find_executable : library.find_debuginfo)(
        to->client, id.data(), static_cast<int>(id.size()), &path);
    library.set_user_data(to->client, nullptr);
    const std::unique_ptr<char, decltype(&std::free)> owned(path, std::free);
    if (fd < 0) {
        judge(-fd);
        return std::nullopt;
    }
    close(fd);
    if (path == nullptr)
        throw std::bad_alloc(); // for the copy of it
    return path;
}

void tell_end(const search_settings &where, const std::string &url, const std::string &problem)
{
    const krv_elf_fetch_t shown = {
        .url = url.c_str(), .received = 0, .size = 0, .is_over = 1, .error = problem.c_str()};
    if (where.fetch != nullptr)
        where.fetch(&shown, where.fetch_arg);
}

// libdebuginfod asks for URL/buildid/..., with one slash.
std::string url_of_file(std::string url, byte_span id, file_kind kind)
{
    while (url.ends_with('/'))
        url.pop_back();
    return fmt::format("{}/buildid/{}/{}", url, hex(id), name_of(kind));
}

} // namespace

bool is_miss(const std::string &path)
{
    return time_of_miss(path).has_value();
}

std::vector<std::string> cached_paths(byte_span build_id, file_kind kind)
{
    std::vector<std::string> folders;
    const std::string home = from_environment("HOME");
    if (const std::string chosen = from_environment("DEBUGINFOD_CACHE_PATH"); !chosen.empty()) {
        folders.push_back(chosen);
    } else {
        const std::string caches = from_environment("XDG_CACHE_HOME");
        if (!caches.empty())
            folders.push_back(caches + "/debuginfod_client");
        else if (!home.empty())
            folders.push_back(home + "/.cache/debuginfod_client");
        if (!home.empty())
            folders.push_back(home + "/.debuginfod_client_cache");
    }
    for (std::string &folder : folders)
        folder += fmt::format("/{}/{}", hex(build_id), name_of(kind));
    return folders;
}

void ask_servers(byte_span build_id, file_kind kind, const search_settings &where,
                 const std::vector<std::string> &wrong, const std::function<verdict(const server_answer &)> &judge)
{
    const std::lock_guard guard(one_at_a_time);
    const std::string all = from_environment(URLS);
    const std::string problem = all.empty() ? "it names no server" : client_library::get().problem;
    if (!problem.empty()) {
        static bool was_told = false;
        const std::string what = all.empty() ? URLS : CLIENT_LIBRARY;
        judge({what, "", true, was_told, problem});
        if (!std::exchange(was_told, true))
            tell_end(where, what, problem);
        return;
    }
    std::error_code ignored;
    for (const std::string &path : wrong)
        fs::remove(path, ignored);
    const std::vector<std::string> cached = cached_paths(build_id, kind);
    bool all_lack_it = true; // which the cache may remember
    std::string policy;      // on signatures: a word that concerns the servers behind it
    std::istringstream words(all);
    for (std::string url; words >> url;) {
        if (url.starts_with("ima:")) {
            policy = url + " ";
            continue;
        }
        const std::string file_url = url_of_file(url, build_id, kind);
        server &asked = known_servers()[url];
        if (!asked.problem.empty()) {
            all_lack_it = false;
            judge({file_url, "", true, true, "not asked again: " + asked.problem});
            continue;
        }
        if (!all_lack_it)
            forget_miss(cached);
        const auto missed = time_of_miss(cached);
        const only_server alone(policy + url, all);
        request sent(file_url, where);
        const std::optional<std::string> path = sent.send(&asked, build_id, kind);
        if (!path) {
            if (sent.server_failed)
                asked.problem = sent.problem;
            tell_end(where, file_url, sent.problem);
            judge({file_url, "", !sent.problem.empty(), false, sent.problem});
            all_lack_it = all_lack_it && sent.problem.empty();
            if (missed && all_lack_it && time_of_miss(cached) == missed)
                return; // the cache answered, for all of them
            // What one server lacks another may have.
            if (!words.eof())
                forget_miss(cached);
            continue;
        }
        all_lack_it = false;
        const verdict is = judge({file_url, *path, false, false, ""});
        if (is == verdict::wrong) {
            fs::remove(*path, ignored);
            asked.problem = "it sent another file";
        }
        tell_end(where, file_url, asked.problem);
        if (is == verdict::taken)
            return;
    }
    if (!all_lack_it)
        forget_miss(cached);
}

} // namespace krv_elf_loader
