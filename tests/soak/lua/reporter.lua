-- Passes on each line of its device to the ledger, and tries a lost link again after half a second.

local AGAIN = 500000 -- microseconds
local up = false

function ROVIK_INIT(me)
  m_p = me
end

function ROVIK_RCVOPEN()
  up = true
end

function ROVIK_RCVCLOSE()
  up = false
  return AGAIN
end

function ROVIK_RCVIO(data)
  sndDATA(network_id .. "_2_0", "string", data, "ledger")
end

function ROVIK_RCV()
end

function ROVIK_PERIODIC()
  if not up then return AGAIN end
end
