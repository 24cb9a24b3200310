#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <fcntl.h>
#include <chrono>
#include <csignal>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "places.hpp"
#include "temporary_directory.hpp"

namespace zendar::test {

/// What a run of the real program left.
struct program_result {
    int status = -1;  ///< exit status; 128 + signal when it was killed; -1 when it had to be killed for time
    std::string out, error;
};

constexpr std::chrono::seconds default_limit{60};

/// The real program, running in a directory, with its output in files of that directory's own.
class running_program {
  public:
    running_program(const std::filesystem::path& directory, const std::vector<std::string>& arguments,
                    const std::string& program = program_file()) {
        const std::string out = capture_ / "out", error = capture_ / "error";
        child_ = fork();
        if (child_ < 0) throw std::runtime_error("fork failed");
        if (child_ == 0) {
            const int out_fd = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
            const int error_fd = open(error.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
            if (chdir(directory.c_str()) != 0 || dup2(out_fd, 1) < 0 || dup2(error_fd, 2) < 0) _exit(126);
            std::vector<char*> words{const_cast<char*>(program.c_str())};
            for (const auto& word : arguments) words.push_back(const_cast<char*>(word.c_str()));
            words.push_back(nullptr);
            execv(program.c_str(), words.data());
            _exit(127);
        }
    }
    ~running_program() {
        if (child_ > 0) {
            kill(child_, SIGKILL);
            waitpid(child_, nullptr, 0);
        }
    }
    running_program(const running_program&) = delete;
    running_program& operator=(const running_program&) = delete;

    void send(int signal) const { kill(child_, signal); }
    /// Waits for the end, for this time at most.
    program_result wait(std::chrono::seconds at_most = default_limit) {
        program_result result;
        using namespace std::chrono;
        const auto limit = steady_clock::now() + at_most;
        int status = 0;
        while (waitpid(child_, &status, WNOHANG) == 0) {
            if (steady_clock::now() > limit) return result;
            std::this_thread::sleep_for(milliseconds(2));
        }
        child_ = -1;
        result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        result.out = capture_.read("out");
        result.error = capture_.read("error");
        return result;
    }

  private:
    temporary_directory capture_;
    pid_t child_ = -1;
};

/// Runs the program to its end.
inline program_result run_program(const std::filesystem::path& directory,
                                  const std::vector<std::string>& arguments,
                                  const std::string& program = program_file(),
                                  std::chrono::seconds at_most = default_limit) {
    return running_program(directory, arguments, program).wait(at_most);
}

/// Log text without the line breaks that the width of 82 columns brought in.
inline std::string unwrapped(std::string text) {
    std::string joined;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\n' && text.compare(i + 1, 4, "    ") == 0) {
            joined += ' ';
            i += 4;
        } else {
            joined += text[i];
        }
    }
    return joined;
}

/// A small model of one trait and two class effects that reads without fault; tests change one thing in it.
struct model_files {
    std::string par =
        "N_TRAITS\n1\nN_WEIGHTS\n0\nN_EFFECTS\n2\nPOS_TRAITS\n3\nPOS_WEIGHTS\n0\n"
        "POS_EFFECTS TYPE_EFFECT N_LEVEL N_COV POS_NESTED N_LEVEL COV_FILE\n"
        "1 0 2 1 0 0 none\n2 0 3 1 0 0 none\n"
        "N_RESIDUAL_COV\n1 0\nresidual.txt\n"
        "EFFECT_ID TYPE_RANDOM N_CORRELATED_EFFECTS DIM_G\n2 1 0 1\ng.txt\n"
        "PHENO_FILE\ndata.txt\n";
    std::string data = "1 1 10.5\n2 2 11.5\n1 3 9.25\n2 1 -9\n";
    std::string residual = "1 1 2.5\n";
    std::string g = "0.5\n";

    void write(const temporary_directory& directory) const {
        directory.write("model.par", par);
        directory.write("data.txt", data);
        directory.write("residual.txt", residual);
        directory.write("g.txt", g);
    }
    /// Replaces a piece of the instruction file, which must be there.
    model_files& replace(const std::string& piece, const std::string& by) {
        const auto at = par.find(piece);
        if (at == std::string::npos) throw std::logic_error("no such piece: " + piece);
        par.replace(at, piece.size(), by);
        return *this;
    }
};

}  // namespace zendar::test
