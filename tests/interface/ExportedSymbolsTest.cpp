#include <elf.h>
#include <gmock/gmock.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <regex>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

std::string readFile(const char* path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) throw std::runtime_error(std::string("cannot read ") + path);
    return {std::istreambuf_iterator<char>(file), {}};
}

template <class T>
T readRecord(const std::string& bytes, std::size_t offset) {
    T record;
    std::memcpy(&record, &bytes.at(offset + sizeof(T) - 1) - (sizeof(T) - 1), sizeof(T));
    return record;
}

std::vector<Elf64_Shdr> readSections(const std::string& bytes) {
    const auto header = readRecord<Elf64_Ehdr>(bytes, 0);
    std::vector<Elf64_Shdr> sections;
    for (int i = 0; i < header.e_shnum; ++i)
        sections.push_back(readRecord<Elf64_Shdr>(bytes, header.e_shoff + i * sizeof(Elf64_Shdr)));
    return sections;
}

// The names in the dynamic symbol table that other objects can bind to: defined, and neither local nor
// hidden.
std::multiset<std::string> findExports(const std::string& bytes) {
    const auto sections = readSections(bytes);
    std::multiset<std::string> names;
    for (const auto& section : sections) {
        if (section.sh_type != SHT_DYNSYM) continue;
        const auto strings = sections.at(section.sh_link).sh_offset;
        for (std::size_t offset = 0; offset < section.sh_size; offset += sizeof(Elf64_Sym)) {
            const auto symbol = readRecord<Elf64_Sym>(bytes, section.sh_offset + offset);
            const auto visibility = ELF64_ST_VISIBILITY(symbol.st_other);
            if (symbol.st_shndx == SHN_UNDEF || ELF64_ST_BIND(symbol.st_info) == STB_LOCAL) continue;
            if (visibility == STV_HIDDEN || visibility == STV_INTERNAL) continue;
            names.insert(&bytes.at(strings + symbol.st_name));
        }
    }
    return names;
}

std::multiset<std::string> findDeclarations(const std::string& header) {
    const std::regex declaration(R"(\n(?:ZEVRANT_EXPORT)\s[^;(]*?(zevrant\w+)\s*\()");
    std::multiset<std::string> names;
    for (std::sregex_iterator match(header.begin(), header.end(), declaration), end; match != end; ++match)
        names.insert((*match)[1]);
    return names;
}

TEST(ExportedSymbols, areTheFunctionsOfTheHeaderAndNothingElse) {
    const auto declared = findDeclarations(readFile(ZEVRANT_HEADER));
    EXPECT_THAT(declared, testing::Contains("zevrantCreateProcessor")) << "the header is read wrongly";
    EXPECT_EQ(findExports(readFile(ZEVRANT_LIBRARY)), declared);
}

}  // namespace
