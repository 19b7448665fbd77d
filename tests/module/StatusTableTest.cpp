// The status table against the README's "### Statuses" table: every row of
// the one is a record of the other, with the same words, so that neither the
// documentation nor the program can say something the other does not.
#include "module/Protocol.h"

#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <string>

namespace {

// The rows "| N | meaning |" of the README's status table, by status.
// A row given twice is recorded under the key ~0u so that the test names it.
std::map<unsigned int, std::string> ReadmeStatusRows(const std::string& path) {
  std::ifstream in(path);
  std::map<unsigned int, std::string> rows;
  std::string line;
  while (std::getline(in, line) && line != "### Statuses") {
  }
  while (std::getline(in, line) && (line.empty() || line[0] != '#')) {
    if (line.size() < 4 || line.compare(0, 2, "| ") != 0 ||
        line.compare(line.size() - 2, 2, " |")) {
      continue;
    }
    const std::size_t cut = line.find(" | ", 2);
    const std::string number = line.substr(2, cut - 2);
    if (cut == std::string::npos || number.find_first_not_of("0123456789") != std::string::npos) {
      continue;  // the header row
    }
    const unsigned int status = static_cast<unsigned int>(std::stoul(number));
    const std::string text = line.substr(cut + 3, line.size() - cut - 5);
    if (!rows.emplace(status, text).second) rows[~0u] += number + " ";
  }
  return rows;
}

TEST(StatusTable, TheReadmeTableHasARowForEveryStatusWithTheSameMeaning) {
  const std::map<unsigned int, std::string> rows = ReadmeStatusRows(KORVEX_README_PATH);
  ASSERT_FALSE(rows.empty()) << "no status table found in " << KORVEX_README_PATH;
  EXPECT_EQ(0u, rows.count(~0u)) << "statuses given twice in the README: " << rows.at(~0u);
  for (std::size_t i = 0; i < korvex::kStatusMeaningCount; ++i) {
    const korvex::StatusMeaning& meaning = korvex::kStatusMeanings[i];
    const auto row = rows.find(meaning.m_Status);
    ASSERT_NE(rows.end(), row) << "the README has no row for status " << meaning.m_Status;
    EXPECT_EQ(std::string(meaning.m_Text), row->second) << "status " << meaning.m_Status;
  }
}

TEST(StatusTable, EveryReadmeRowIsAStatusOfTheTable) {
  for (const auto& row : ReadmeStatusRows(KORVEX_README_PATH)) {
    if (row.first == ~0u) continue;  // reported by the test above
    EXPECT_NE(nullptr, korvex::MeaningOf(row.first))
        << "the README explains status " << row.first << ", which the program does not have";
  }
}

TEST(StatusTable, EachStatusHasOneRecordWithTextAndPhrase) {
  std::map<unsigned int, int> seen;
  for (std::size_t i = 0; i < korvex::kStatusMeaningCount; ++i) {
    const korvex::StatusMeaning& meaning = korvex::kStatusMeanings[i];
    EXPECT_EQ(1, ++seen[meaning.m_Status]) << "status " << meaning.m_Status << " twice";
    ASSERT_NE(nullptr, meaning.m_Text) << "status " << meaning.m_Status;
    ASSERT_NE(nullptr, meaning.m_Phrase) << "status " << meaning.m_Status;
    EXPECT_NE('\0', meaning.m_Text[0]) << "status " << meaning.m_Status;
    EXPECT_EQ(&meaning, korvex::FindStatusMeaning(meaning.m_Status));
  }
}

TEST(StatusTable, EveryNamedStatusHasAMeaning) {
  for (unsigned int status :
       {korvex::kStatusDone, korvex::kStatusTaken, korvex::kStatusNoArchive,
        korvex::kStatusToolRunning, korvex::kStatusJobFailed, korvex::kStatusBmcBadRequest,
        korvex::kStatusBmcNameRefused, korvex::kStatusBmcSourceUnreadable,
        korvex::kStatusBmcNoSpace, korvex::kStatusBmcTimedOut, korvex::kStatusBmcWriteFailed,
        korvex::kStatusException, korvex::kStatusOtherCabinet, korvex::kStatusQueued}) {
    EXPECT_NE(nullptr, korvex::MeaningOf(status)) << "status " << status;
  }
}

TEST(StatusTable, AStatusTheProtocolDoesNotHaveHasNoMeaning) {
  for (unsigned int status : {2u, 4u, 14u, 21u, 23u, 99u, ~0u}) {
    EXPECT_EQ(nullptr, korvex::MeaningOf(status)) << "status " << status;
    EXPECT_EQ(nullptr, korvex::FindStatusMeaning(status)) << "status " << status;
  }
}

}  // namespace
