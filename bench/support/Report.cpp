#include "support/Report.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <utility>
#include <vector>

#include "support/Machine.h"

namespace bench {
namespace {

constexpr std::size_t kColumns = 7;
using Row = std::array<std::string, kColumns>;
constexpr const char* kOfRatio = "ratio";
constexpr const char* kOfFigure = "figure";
constexpr std::array<bool, kColumns> kFlushRight = {false, true, false, true, false, false, false};

std::string withDigits(double number, int digits) {
  std::array<char, 64> text{};
  std::snprintf(text.data(), text.size(), "%.*f", digits, number);
  return text.data();
}

// About four digits that mean something, thousands apart.
std::string readable(double number) {
  const double size = std::abs(number);
  std::string text = withDigits(number, size >= 1000 ? 0 : size >= 100 ? 1 : size >= 10 ? 2 : 3);
  if (size < 1000) return text;
  for (std::size_t at = text.size(); at > 3 && text[at - 4] != '-';) {
    at -= 3;
    text.insert(at, ",");
  }
  return text;
}

double numberIn(const cJSON* object, const char* field) {
  const cJSON* item = cJSON_GetObjectItemCaseSensitive(object, field);
  return item != nullptr ? item->valuedouble : 0;
}

std::string textIn(const cJSON* object, const char* field) {
  const cJSON* item = cJSON_GetObjectItemCaseSensitive(object, field);
  return cJSON_IsString(item) ? item->valuestring : "";
}

std::string ratioPart(const cJSON* ratio, const char* field) {
  const double number = numberIn(ratio, field);
  return withDigits(number, number < 0.1 ? 4 : 2);
}

std::string ratioText(const cJSON* ratio) {
  return ratioPart(ratio, "median") + " (" + ratioPart(ratio, "lowest") + ".." +
         ratioPart(ratio, "highest") + ")";
}

// "< 1.50" for a ratio, "< 40.00 KB" for the figure itself.
std::string goalText(const cJSON* goal, const std::string& unit) {
  const std::string relation = textIn(goal, "relation") + " ";
  if (textIn(goal, "of") == kOfRatio) return relation + withDigits(numberIn(goal, "limit"), 2);
  return relation + readable(numberIn(goal, "limit")) + (unit.empty() ? "" : " " + unit);
}

Row rowOf(const cJSON* figure) {
  Row row = {textIn(figure, "bench") + ": " + textIn(figure, "name"),
             readable(numberIn(figure, "value")), textIn(figure, "unit")};
  if (cJSON_HasObjectItem(figure, "floor")) row[3] = readable(numberIn(figure, "floor"));
  const cJSON* ratio = cJSON_GetObjectItemCaseSensitive(figure, "ratio");
  if (ratio != nullptr) row[4] = ratioText(ratio);
  const cJSON* goal = cJSON_GetObjectItemCaseSensitive(figure, "goal");
  if (goal == nullptr) return row;
  row[5] = goalText(goal, row[2]);
  row[6] = cJSON_IsTrue(cJSON_GetObjectItemCaseSensitive(figure, "met")) ? "yes" : "NO";
  return row;
}

void printRow(const Row& row, const std::array<std::size_t, kColumns>& widths) {
  std::string line;
  for (std::size_t column = 0; column < kColumns; ++column) {
    const std::string blanks(widths[column] - row[column].size(), ' ');
    line += kFlushRight[column] ? blanks + row[column] : row[column] + blanks;
    line += "  ";
  }
  line.erase(line.find_last_not_of(' ') + 1);
  std::cout << line << '\n';
}

bool met(const Goal& goal, const Figure& figure) {
  const double reached = goal.of == Goal::Of::Ratio ? figure.ratio->median : figure.value;
  return goal.relation == Goal::Relation::AtLeast ? reached >= goal.limit : reached < goal.limit;
}

void addRatio(cJSON* object, const Spread& spread) {
  cJSON* ratio = cJSON_AddObjectToObject(object, "ratio");
  cJSON_AddNumberToObject(ratio, "median", spread.median);
  cJSON_AddNumberToObject(ratio, "lowest", spread.lowest);
  cJSON_AddNumberToObject(ratio, "highest", spread.highest);
}

void addGoal(cJSON* object, const Goal& goal, const Figure& figure) {
  const bool of_ratio = goal.of == Goal::Of::Ratio;
  if (of_ratio && !figure.ratio) throw std::logic_error("no ratio for the goal of " + figure.name);
  cJSON* target = cJSON_AddObjectToObject(object, "goal");
  const bool at_least = goal.relation == Goal::Relation::AtLeast;
  cJSON_AddStringToObject(target, "of", of_ratio ? kOfRatio : kOfFigure);
  cJSON_AddStringToObject(target, "relation", at_least ? ">=" : "<");
  cJSON_AddNumberToObject(target, "limit", goal.limit);
  cJSON_AddBoolToObject(object, "met", met(goal, figure));
}

void writeResults(const std::string& file, const cJSON* document) {
  char* text = cJSON_Print(document);
  const std::unique_ptr<char, drovane::JsonDelete> owner(text);
  std::ofstream out(file, std::ios::trunc);
  out << text << '\n';
  if (!out.flush()) throw std::runtime_error("cannot write " + file);
}

}  // namespace

Report::Report(std::string its_bench, Options its_options)
    : bench(std::move(its_bench)), options(std::move(its_options)), figures(cJSON_CreateArray()) {}

void Report::add(const Figure& figure) {
  cJSON* object = cJSON_CreateObject();
  cJSON_AddItemToArray(figures.get(), object);
  cJSON_AddStringToObject(object, "bench", bench.c_str());
  cJSON_AddStringToObject(object, "name", figure.name.c_str());
  cJSON_AddNumberToObject(object, "value", figure.value);
  cJSON_AddStringToObject(object, "unit", figure.unit.c_str());
  cJSON_AddBoolToObject(object, "quick", options.quick);
  if (figure.floor) cJSON_AddNumberToObject(object, "floor", *figure.floor);
  if (figure.ratio) addRatio(object, *figure.ratio);
  if (figure.goal) addGoal(object, *figure.goal, figure);
}

void Report::fault(const std::string& what) {
  faulty = true;
  std::cerr << bench << ": self-check failed: " << what << '\n';
}

int Report::finish() {
  if (faulty) return 1;
  printFigures(figures.get());
  if (options.json.empty()) return 0;
  drovane::Json document = readResults(options.json);
  if (document == nullptr) document = newResults();
  cJSON* all = cJSON_GetObjectItemCaseSensitive(document.get(), "figures");
  while (cJSON* figure = cJSON_DetachItemFromArray(figures.get(), 0))
    cJSON_AddItemToArray(all, figure);
  writeResults(options.json, document.get());
  return 0;
}

void printFigures(const cJSON* figures) {
  std::vector<Row> rows = {{"what", "figure", "unit", "floor", "ratio (pairs)", "goal", "met"}};
  const cJSON* figure = nullptr;
  cJSON_ArrayForEach(figure, figures) rows.push_back(rowOf(figure));
  std::array<std::size_t, kColumns> widths{};
  for (const Row& row : rows)
    for (std::size_t column = 0; column < kColumns; ++column)
      widths[column] = std::max(widths[column], row[column].size());
  for (const Row& row : rows) printRow(row, widths);
}

drovane::Json readResults(const std::string& file) {
  std::ifstream in(file);
  const std::string text((std::istreambuf_iterator<char>(in)), {});
  drovane::Json document(cJSON_Parse(text.c_str()));
  if (!cJSON_IsArray(cJSON_GetObjectItemCaseSensitive(document.get(), "figures"))) return nullptr;
  return document;
}

}  // namespace bench
