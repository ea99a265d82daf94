-- Asks the ledger for a value a thousand times a second: every other time it waits for the answer,
-- else that has to come as a message before it asks so again. The ledger answers with the number of
-- the request; any other answer, or none, is a complaint to the ledger. "rest" ends that and answers
-- with the number of requests, "owed" with the number of the one that has had no answer, or 0.

local KEY = network_id .. "_5_0"
local COMPLAINT = network_id .. "_9_0"
local TICK = 1000 -- microseconds
local asked = 0
local expected -- the number of the request that is not answered yet
local waits = false
local resting = false

function ROVIK_INIT(me)
  m_p = me
end

local function check(number, answer)
  if number ~= answer then
    local text = "request " .. tostring(number) .. " was answered with " .. tostring(answer)
    sndDATA(COMPLAINT, "string", text, "ledger")
  end
end

local function ask()
  asked = asked + 1
  expected = asked
  sndDATA_REQUEST(KEY, "int", "ledger")
end

local function askAndWait()
  asked = asked + 1
  local answer = getDATA(KEY, "int", "ledger")
  check(asked, answer and answer.value)
end

function ROVIK_RCVOPEN()
  return TICK
end

function ROVIK_RCVCLOSE()
end

function ROVIK_RCVIO()
end

function ROVIK_RCV(msg)
  if msg.type == "MM_DATA" and msg.key == KEY then
    check(expected, msg.value)
    expected = nil
  end
end

function ROVIK_PERIODIC()
  if resting then return 30000000 end
  waits = not waits
  if waits then
    askAndWait()
  elseif not expected then
    ask()
  end
  return TICK
end

function rest()
  resting = true
  return asked
end

function owed()
  return expected or 0
end
