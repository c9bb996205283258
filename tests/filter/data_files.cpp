/* Reading the independent test data (see data_files.h). */
#include "data_files.h"

#include <cstdlib>
#include <fstream>
#include <sstream>

#include <gtest/gtest.h>

namespace nftest {

std::vector<std::map<std::string, std::string>> ReadCsv(const std::string &path)
{
    std::vector<std::map<std::string, std::string>> rows;
    std::ifstream in(path);
    if (!in) {
        ADD_FAILURE() << "cannot read " << path;
        return rows;
    }
    auto split = [](const std::string &line) {
        std::vector<std::string> fields;
        std::stringstream stream(line);
        std::string field;
        while (std::getline(stream, field, ','))
            fields.push_back(field);
        if (!line.empty() && line.back() == ',')
            fields.emplace_back();
        return fields;
    };
    std::string line;
    std::getline(in, line);
    std::vector<std::string> columns = split(line);
    while (std::getline(in, line)) {
        std::vector<std::string> fields = split(line);
        std::map<std::string, std::string> row;
        for (size_t i = 0; i < columns.size(); i++)
            row[columns[i]] = i < fields.size() ? fields[i] : "";
        rows.push_back(row);
    }
    return rows;
}

std::string DataPath(const std::string &relative)
{
    return std::string(NF_TEST_DATA_DIR) + "/" + relative;
}

long FieldNumber(const std::map<std::string, std::string> &row, const std::string &column)
{
    auto it = row.find(column);
    if (it == row.end() || it->second.empty())
        return -1;
    return std::strtol(it->second.c_str(), nullptr, 0);
}

} // namespace nftest
