#pragma once

#include <string>
#include <utility>
#include <vector>

#include "program_run.hpp"

namespace zendar::test {

/// A mean and an animal effect of six animals, of which the last one is inbred; behind them two groups, or
/// metafounders, for the types that have these. Tests change one thing in it.
struct animal_files {
    int type = 3, nlevel = 6, nupg = 0;
    std::string ped_name = "ped.txt", inb_name = "compute", gamma_name = "gamma.txt", list_name = "list.txt";
    std::string ped = "1 0 0\n2 0 0\n3 1 2\n4 1 2\n5 1 0\n6 3 4\n";
    std::string gamma = "1 1 0.5\n2 1 0.1\n2 2 0.4\n";
    std::string list = "3\n6\n";
    std::string effect = "2 0 LEVELS 1 0 0 none";
    std::string data = "1 3 10.5\n1 4 11.5\n1 5 9.25\n1 6 8\n1 6 8.5\n1 1 12\n";
    std::string options;
    std::vector<std::pair<std::string, std::string>> more;  ///< further files

    explicit animal_files(int random_type = 3) : type(random_type) {
        if (!has_groups()) return;
        nlevel = 8, nupg = 2;
        ped = "1 7 8\n2 7 7\n3 1 2\n4 1 2\n5 1 8\n6 3 4\n";
    }
    [[nodiscard]] bool has_groups() const { return type % 100 == 5 || type % 100 == 7 || type % 100 == 9; }

    void write(const temporary_directory& directory) const {
        std::string words = ped_name;
        if (has_groups()) words += " " + std::to_string(nupg);
        if (type != 10) words += " " + inb_name;
        if (type == 7) words += " " + gamma_name;
        if (type > 100) words += " " + list_name;
        if (type == 1) words.clear();
        model_files model;
        model.data = data;
        model.replace("1 0 2 1 0 0 none", "1 0 1 1 0 0 none").replace("2 0 3 1 0 0 none", effect);
        if (effect.find("LEVELS") != std::string::npos) model.replace("LEVELS", std::to_string(nlevel));
        model.replace("2 1 0 1\n",
                      "2 " + std::to_string(type) + " 0 1\n" + (words.empty() ? "" : words + "\n"));
        model.par += "!convcrit 1.0e-18\n" + options;
        model.write(directory);
        directory.write("ped.txt", ped);
        directory.write("gamma.txt", gamma);
        directory.write("list.txt", list);
        for (const auto& [name, text] : more) directory.write(name, text);
    }
};

}  // namespace zendar::test
