-- Sends a numbered line to the ledger a thousand times a second. "rest" ends that with the last
-- line and answers with its number.

local TICK = 1000 -- microseconds
local count = 0
local resting = false

function ROVIK_INIT(me)
  m_p = me
end

local function send(ending)
  count = count + 1
  sndDATA(network_id .. "_2_0", "string", "#1." .. count .. ending, "ledger")
end

function ROVIK_RCVOPEN()
  return TICK
end

function ROVIK_RCVCLOSE()
end

function ROVIK_RCVIO()
end

function ROVIK_RCV()
end

function ROVIK_PERIODIC()
  if resting then return 30000000 end
  send("")
  return TICK
end

function rest()
  resting = true
  send("!")
  return count
end
