#pragma once

#include <string>

/// Pictures by gnuplot, which runs on a script and may be missing.
namespace zendar {

enum class plot_result { drawn, no_gnuplot, failed };

/// Runs gnuplot on a script, without a shell, silently, and waits for it.
plot_result run_gnuplot(const std::string& script);

}  // namespace zendar
