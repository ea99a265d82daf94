-- Writes a numbered line to its device a thousand times a second. "rest" ends that and answers with
-- the number of the last one.

local TICK = 1000 -- microseconds
local count = 0
local resting = false

function ROVIK_INIT(me)
  m_p = me
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
  count = count + 1
  sndIO("W" .. count)
  return TICK
end

function rest()
  resting = true
  return count
end
