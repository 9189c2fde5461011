#include "device/process_image.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <string_view>
#include <utility>

namespace qm {
namespace {

constexpr char kShell[] = "/bin/sh";

/// Where the C library looks when there is no PATH.
std::string defaultPath() {
    std::string path(::confstr(_CS_PATH, nullptr, 0), '\0');
    if (!path.empty()) {
        ::confstr(_CS_PATH, path.data(), path.size());
        path.pop_back();
    }
    return path;
}

std::string searchPath(const ProcessImage::Environment& env) {
    if (env) {
        const auto found = env->find("PATH");
        return found == env->end() ? defaultPath() : std::string(found->second.c_str());
    }
    const char* inherited = std::getenv("PATH");
    return inherited == nullptr ? defaultPath() : std::string(inherited);
}

/// The files that a program of this name may be, in the order in which they are tried.
std::vector<std::string> programCandidates(const std::string& program, const ProcessImage::Environment& env) {
    if (program.empty()) return {};
    if (program.find('/') != std::string::npos) return {program};
    std::vector<std::string> candidates;
    const std::string path = searchPath(env);
    for (std::size_t begin = 0; begin <= path.size();) {
        const std::size_t end = std::min(path.find(':', begin), path.size());
        std::string& file = candidates.emplace_back(path, begin, end - begin);
        if (!file.empty()) file += '/';  // An empty element is the current directory.
        file += program;
        begin = end + 1;
    }
    return candidates;
}

bool isVariableName(std::string_view name) {
    return !name.empty() && name.find_first_of(std::string_view("=\0", 2)) == std::string_view::npos;
}

/// Whether the search goes on after this failure: the file isn't there, or isn't for us.
bool tryNext(int failure) {
    switch (failure) {
        case EACCES:
        case ENOENT:
        case ESTALE:
        case ENOTDIR:
        case ENODEV:
        case ETIMEDOUT:
            return true;
        default:
            return false;
    }
}

}  // namespace

ProcessImage::ProcessImage(std::vector<std::string> args, const Environment& env)
    : args_(std::move(args)), candidates_(programCandidates(args_.front().c_str(), env)) {
    for (std::string& arg : args_)
        argv_.push_back(arg.data());
    argv_.push_back(nullptr);

    shellArgv_ = {const_cast<char*>(kShell), nullptr};
    shellArgv_.insert(shellArgv_.end(), argv_.begin() + 1, argv_.end());

    if (!env) return;
    for (const auto& [name, value] : *env) {
        if (!isVariableName(name)) continue;
        std::string& text = environmentText_.emplace_back(name);
        text += '=';
        text += value;
    }
    environment_.emplace();
    for (std::string& text : environmentText_)
        environment_->push_back(text.data());
    environment_->push_back(nullptr);
}

void ProcessImage::execute() {
    char** environment = environment_ ? environment_->data() : environ;
    for (const std::string& candidate : candidates_) {
        executeFile(candidate.c_str(), environment);
        if (!tryNext(errno)) return;
    }
}

void ProcessImage::executeFile(const char* file, char** environment) {
    ::execve(file, argv_.data(), environment);
    if (errno != ENOEXEC) return;
    shellArgv_[1] = const_cast<char*>(file);
    ::execve(kShell, shellArgv_.data(), environment);
}

}  // namespace qm
