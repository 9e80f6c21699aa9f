#include "ResultTable.h"

#include <cmath>
#include <cstdio>

#include "Stats.h"

namespace ZRT::Bench {

std::string FormatFigure(double value) {
  char text[64];
  const double mag = std::fabs(value);
  if (mag >= 100 || value == 0) {
    std::snprintf(text, sizeof text, "%.0f", value);
  } else if (mag >= 10) {
    std::snprintf(text, sizeof text, "%.1f", value);
  } else if (mag >= 0.1) {
    std::snprintf(text, sizeof text, "%.2f", value);
  } else {
    std::snprintf(text, sizeof text, "%.3f", value);
  }
  return text;
}

void CResultTable::AddRow(const std::string& key, const std::string& label, bool higherIsBetter) {
  SRow row;
  row.key = key;
  row.label = label;
  row.higherIsBetter = higherIsBetter;
  m_rows.push_back(row);
}

void CResultTable::AddInfoRow(const std::string& key, const std::string& label) {
  AddRow(key, label, false);
  m_rows.back().info = true;
}

void CResultTable::Add(const std::string& key, const std::string& column, double value) {
  for (SRow& row : m_rows) {
    if (row.key == key) {
      row.values[column].push_back(value);
      return;
    }
  }
}

double CResultTable::MedianOf(const SRow& row, const std::string& column, bool& present) const {
  const auto it = row.values.find(column);
  present = it != row.values.end();
  return present ? Median(it->second) : std::nan("");
}

std::string CResultTable::Cell(const SRow& row, const std::string& column) const {
  bool present = false;
  const double median = MedianOf(row, column, present);
  if (!present) return "-";
  if (std::isnan(median)) return "fail";
  const std::vector<double>& runs = row.values.at(column);
  size_t good = 0;
  for (double v : runs) good += std::isnan(v) ? 0 : 1;
  std::string cell = FormatFigure(median);
  if (good != runs.size()) cell += " (" + std::to_string(good) + "/" + std::to_string(runs.size()) + " ok)";
  return cell;
}

std::string CResultTable::RatioCell(const SRow& row, const std::string& column) const {
  bool oursPresent = false;
  bool peerPresent = false;
  const double ours = MedianOf(row, m_ours, oursPresent);
  const double peer = MedianOf(row, column, peerPresent);
  if (row.info || !oursPresent || !peerPresent || std::isnan(ours) || std::isnan(peer) || peer == 0) return "-";
  char text[32];
  std::snprintf(text, sizeof text, "%.2f", ours / peer);
  return text;
}

bool CResultTable::HasFailure(const std::string& column) const {
  for (const SRow& row : m_rows) {
    const auto it = row.values.find(column);
    if (it == row.values.end()) continue;
    for (double v : it->second) {
      if (std::isnan(v)) return true;
    }
  }
  return false;
}

void CResultTable::Print(std::ostream& out) const {
  std::vector<std::string> ratioColumns;
  for (const std::string& c : m_columns) {
    if (c != m_ours) ratioColumns.push_back(c);
  }
  out << "| Measure | better |";
  for (const std::string& c : m_columns) out << ' ' << c << " |";
  for (const std::string& c : ratioColumns) out << ' ' << m_ours << " / " << c << " |";
  out << "\n|---|---|";
  for (size_t i = 0; i < m_columns.size() + ratioColumns.size(); ++i) out << "---:|";
  out << '\n';
  for (const SRow& row : m_rows) {
    if (row.values.empty()) continue;
    out << "| " << row.label << " | " << (row.info ? "-" : row.higherIsBetter ? "higher" : "lower") << " |";
    for (const std::string& c : m_columns) out << ' ' << Cell(row, c) << " |";
    for (const std::string& c : ratioColumns) out << ' ' << RatioCell(row, c) << " |";
    out << '\n';
  }
  if (!m_notes.empty()) {
    out << '\n';
    for (const std::string& note : m_notes) out << "- " << note << '\n';
  }
}

void CResultTable::PrintFigures(std::ostream& out) const {
  const auto better = [](const SRow& row) { return row.info ? "-" : row.higherIsBetter ? "higher" : "lower"; };
  for (const SRow& row : m_rows) out << "row\t" << row.key << '\t' << better(row) << '\t' << row.label << '\n';
  char text[64];
  for (const SRow& row : m_rows) {
    for (const auto& column : row.values) {
      for (const double v : column.second) {
        std::snprintf(text, sizeof text, "%.6g", v);
        out << row.key << '\t' << better(row) << '\t' << row.label << '\t' << column.first << '\t'
            << (std::isnan(v) ? "nan" : text) << '\n';
      }
    }
  }
  for (const std::string& note : m_notes) out << "note\t" << note << '\n';
}

}  // namespace ZRT::Bench
