#pragma once
// Collects one figure per run for every (measure, target) pair and prints the medians as a
// Markdown table with the ratios of our proxy to the direct path and to each peer.
#include <map>
#include <ostream>
#include <string>
#include <vector>

namespace ZRT::Bench {

class CResultTable {
 public:
  CResultTable(std::vector<std::string> columns, std::string ours)
      : m_columns(std::move(columns)), m_ours(std::move(ours)) {}

  // Declares a row; rows print in the order declared.
  void AddRow(const std::string& key, const std::string& label, bool higherIsBetter);
  // A row with no better direction (a share, a count for context): no ratio columns.
  void AddInfoRow(const std::string& key, const std::string& label);
  // One run's figure; NaN records a failed run.
  void Add(const std::string& key, const std::string& column, double value);
  void Note(const std::string& text) { m_notes.push_back(text); }
  void Print(std::ostream& out) const;
  // Every row and figure as lines for `zrt-loadgen table`, which merges several such outputs:
  // "row KEY BETTER LABEL", then "KEY BETTER LABEL COLUMN VALUE" per run, then "note TEXT"
  // (tab-separated; BETTER is higher, lower or -).
  void PrintFigures(std::ostream& out) const;
  // True when a run recorded for the column failed.
  bool HasFailure(const std::string& column) const;

 private:
  struct SRow {
    std::string key;
    std::string label;
    bool higherIsBetter = true;
    bool info = false;
    std::map<std::string, std::vector<double>> values;
  };
  std::string Cell(const SRow& row, const std::string& column) const;
  std::string RatioCell(const SRow& row, const std::string& column) const;
  double MedianOf(const SRow& row, const std::string& column, bool& present) const;

  std::vector<std::string> m_columns;
  std::string m_ours;
  std::vector<SRow> m_rows;
  std::vector<std::string> m_notes;
};

std::string FormatFigure(double value);

}  // namespace ZRT::Bench
