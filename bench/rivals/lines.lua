-- Lines "T<n>=<v>" from a TCP port become records in a table, and whoever empties the table counts
-- them and adds their values up; or, when a second port is given, sends each value there as a line.
--
-- Usage: lines.lua PORT [ANSWER_PORT]

local socket = require("socket")

local HOST = "127.0.0.1"
local KEY = "5_1_0"
local RULE = "^T%d+=(%d+)$"

local tonumber = tonumber
local number, total = 0, 0

local function count(records)
  for i = 1, #records do
    number = number + 1
    total = total + tonumber(records[i].value)
    records[i] = nil
  end
end

local function answerTo(port)
  local answers = assert(socket.connect(HOST, port))
  answers:setoption("tcp-nodelay", true)
  return function(records)
    for i = 1, #records do
      assert(answers:send(records[i].value .. "\n"))
      records[i] = nil
    end
  end
end

local consume = arg[2] and answerTo(arg[2]) or count
local lines = assert(socket.connect(HOST, arg[1]))
local records = {}

-- The library reads pieces of 8 KiB and cuts them, which is faster than to cut larger ones here.
local line, problem = lines:receive("*l")
while line do
  local value = line:match(RULE)
  if value then
    records[#records + 1] = {key = KEY, value = value}
    consume(records)
  end
  line, problem = lines:receive("*l")
end

assert(problem == "closed", problem)
if not arg[2] then print(string.format("%.0f %.0f", number, total)) end
