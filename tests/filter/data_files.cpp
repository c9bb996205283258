/* Reading the independent test data (see data_files.h). */
#include "data_files.h"

#include <pcap/pcap.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

#include <gtest/gtest.h>

namespace nftest {

std::vector<Frame> ReadPcap(const std::string &path)
{
    std::vector<Frame> frames;
    char error[PCAP_ERRBUF_SIZE];
    pcap_t *capture = pcap_open_offline(path.c_str(), error);
    if (capture == nullptr) {
        ADD_FAILURE() << "cannot read " << path << ": " << error;
        return frames;
    }
    struct pcap_pkthdr *header;
    const u_char *data;
    while (pcap_next_ex(capture, &header, &data) == 1)
        frames.emplace_back(data, data + header->caplen);
    pcap_close(capture);
    return frames;
}

bool WritePcap(const std::string &path, const std::vector<Frame> &frames)
{
    pcap_t *dead = pcap_open_dead(DLT_EN10MB, 65535);
    pcap_dumper_t *dumper = pcap_dump_open(dead, path.c_str());
    if (dumper == nullptr) {
        pcap_close(dead);
        return false;
    }
    for (size_t i = 0; i < frames.size(); i++) {
        struct pcap_pkthdr header = {};
        header.ts.tv_sec = (time_t)i;
        header.caplen = header.len = (bpf_u_int32)frames[i].size();
        pcap_dump((u_char *)dumper, &header, frames[i].data());
    }
    pcap_dump_close(dumper);
    pcap_close(dead);
    return true;
}

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
