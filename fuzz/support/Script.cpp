#include "support/Script.h"

#include <algorithm>
#include <array>

#include "support/Sections.h"

namespace fuzzing {
namespace {

constexpr std::size_t kMostLines = 200;

struct Statement {
  char letter;
  std::string_view text;
};

constexpr std::array kStatements = {
    // Writes.
    Statement{'w', "sndIO(d or 'w')"},
    Statement{'l', "sndIO('line\\\\n')"},
    Statement{'n', "sndIO('')"},
    Statement{'b', "sndIO(string.rep('x', 4095))"},
    Statement{'B', "sndIO(string.rep('\\\\n', 4096))"},
    Statement{'0', "sndIO('\\0a\\\\x00\\\\')"},
    Statement{'o', "sndIO({})"},
    // Other events, called as functions.
    Statement{'i', "ROVIK_RCVIO(d)"},
    Statement{'c', "ROVIK_RCVCLOSE()"},
    Statement{'p', "pcall(ROVIK_RCVIO, d)"},
    // Sends.
    Statement{'d', "sndDATA(network_id..'_0_0', 'string', d or '', 'BC')"},
    Statement{'D', "sndDATA('5_1_2', 'int', '7', 'inbox')"},
    Statement{'a', "sndACTUATOR_REQUEST('5_0_0', 'string', 'a\\\\n', 5)"},
    Statement{'q', "sndDATA_REQUEST('5_1_0', 'float', 90)"},
    Statement{'k', "sndCMD('close', 'net')"},
    Statement{'m', "sndMM(d, 'BC')"},
    Statement{'M', "sndMM({type='MM_MSG', channel=1, msg=d}, 'inbox')"},
    Statement{'s', "sndMSG(1, 'text')"},
    // Requests.
    Statement{'g', "d = getDATA('5_1_0', 'int', 90)"},
    Statement{'G', "d = getCMD('status', 'inbox')"},
    Statement{'h', "d = getMM({type='MM_DATA_REQUEST', key='5_1_0', value_type='int'}, 90)"},
    // Texts.
    Statement{'u', "d = unescape(d)"},
    Statement{'e', "d = escape(d)"},
    Statement{'f', "print(tostring(d))"},
    Statement{'t', "d = gettimeofday().usec >= 0"},
    // State.
    Statement{'x', "m_p = nil"},
    Statement{'X', "m_p = me"},
    Statement{'y', "ROVIK_RCVIO, ROVIK_RCVCLOSE = ROVIK_RCVCLOSE, ROVIK_RCVIO"},
    Statement{'z', "ROVIK_RCVOPEN = nil"},
    Statement{'v', "count = (count or 0) + 1 if count > 3 then return 5 end"},
    // Ends.
    Statement{'r', "do return 1000 end"},
    Statement{'R', "do return -1 end"},
    Statement{'1', "do return 'text' end"},
    Statement{'2', "do return {}, 2 end"},
    Statement{'3', "do return 1e300 end"},
    Statement{'4', "do return d end"},
    Statement{'5', "do return string.byte('aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa', 1, 32) end"},
    Statement{'E', "error('e')"},
    Statement{'F', "error({})"},
    Statement{'N', "error()"},
    Statement{'Y', "coroutine.wrap(sndIO)('y')"},
};

std::string functionOf(std::string_view line) {
  const std::size_t blank = std::min(line.find(' '), line.size());
  std::string text = "function ROVIK_" + std::string(line.substr(0, blank)) + "(d) ";
  if (line.starts_with("INIT")) text += "m_p = d me = d d = 'init' ";
  for (const char letter : line.substr(blank)) {
    const auto* const found =
        std::find_if(kStatements.begin(), kStatements.end(),
                     [letter](const Statement& each) { return each.letter == letter; });
    if (found != kStatements.end()) text += std::string(found->text) + " ";
  }
  return text + "end\n";
}

}  // namespace

std::string scriptOf(std::string_view text) {
  std::string script;
  for (const std::string_view line : linesOf(text, kMostLines)) {
    if (line.starts_with('@'))
      script += functionOf(line.substr(1));
    else
      script += std::string(line) + "\n";
  }
  return script;
}

}  // namespace fuzzing
