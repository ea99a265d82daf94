-- Asks the projector for its state, explains its errors, and tries again what it refuses for now.
--
-- The projector answers each command with one line, in the order in which they were sent. The rules
-- in projector.conf turn answers into values and requests into commands; here it only matters which
-- answer belongs to which command. With "echo on" all that is sent comes by here, whether a rule or
-- this script has sent it.

local QUERIES = { "PWR ?", "INP ?", "LAMP ?" }
local MOST_TRIES = 60   -- ticks for which a refused command is kept
local MOST_SILENCE = 3  -- ticks without an answer until the connection is renewed

local MEANING = {
  ERR1 = "the projector does not know this command",
  ERR2 = "the projector does not have this value",
  ERR3 = "not now, it is tried again",
}

local tick = 5000000    -- microseconds
local connected = false
local silence = 0       -- ticks since the projector has answered
local asked = {}        -- what it has not answered yet, the oldest first
local waiting = {}      -- what is sent when it has answered everything
local refused = {}      -- by its first word: the command to try again, and how often it was tried

function ROVIK_INIT(me)
  m_p = me
end

-- A word of projector.conf. (The first thing that a script returns decides whether its delays are
-- taken: it has to be a number, or a text that is one.)
function poll_every(words)
  tick = 1000000 * assert(tonumber(words.arg1), "poll_every takes a number of seconds")
  return words.arg1
end

-- A message for people; it is in the log as well.
local function tell(text)
  sndMM({ type = "MM_MSG", channel = 1, msg = text }, "BC")
end

-- One command at a time: the next one leaves when everything has been answered.
local function proceed()
  if #asked == 0 and #waiting > 0 then sndIO(table.remove(waiting, 1)) end
end

-- The newest command with the same first word takes the place of one that was refused before:
-- who asked for input 2 and then for input 3 does not want to see input 2.
local function keep(command)
  local word = command:match("^%S*")
  local before = refused[word]
  local tries = before and before.command == command and before.tries + 1 or 1
  if tries == 1 then tell(command .. ": " .. MEANING.ERR3) end
  if tries > MOST_TRIES then tell(command .. ": refused for too long, given up") end
  refused[word] = tries <= MOST_TRIES and { command = command, tries = tries } or nil
end

-- What became of a command. Of queries the rules have taken the value, if they brought one.
local function answered(command, reply)
  if command:match("%?$") then return end
  local word = command:match("^%S*")
  if reply == "ERR3" then return keep(command) end
  if reply == "OK" then
    refused[word] = nil
    table.insert(waiting, word .. " ?")  -- tell the house at once
  else
    tell(command .. ": " .. (MEANING[reply] or "answered with " .. reply))
  end
end

function ROVIK_RCVIO(data)
  local sent = data:match("^(.*[^\\])\\r$")  -- only what was sent still has its end of line
  if sent then
    table.insert(asked, sent)
    return
  end
  silence = 0
  if #asked > 0 then answered(table.remove(asked, 1), data) end
  proceed()
end

local function poll()
  for _, kept in pairs(refused) do table.insert(waiting, kept.command) end
  for _, query in ipairs(QUERIES) do table.insert(waiting, query) end
  proceed()
end

function ROVIK_RCVOPEN()
  connected, silence, asked, waiting = true, 0, {}, {}
  poll()
  return tick
end

function ROVIK_RCVCLOSE()
  connected = false
end

-- A projector that has lost its power does not close the connection; it is only silent. While it
-- is, nothing more is sent.
local function overdue()
  silence = silence + 1
  if silence < MOST_SILENCE then return end
  tell("the projector does not answer, the connection is renewed")
  silence = 0
  sndCMD("close", network_id)  -- this rovik itself; "reconnect on" opens it with the next tick
end

function ROVIK_PERIODIC()
  if connected and #asked > 0 then
    overdue()
  elseif connected then
    poll()
  end
  return tick
end

function ROVIK_RCV()
end
