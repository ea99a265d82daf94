-- Looks after the link of the rovik that runs it: tells the house when it is lost and when it is
-- back, and tries again every 2 seconds once it is down. ("reconnect on" alone takes up to 30, as
-- does the first try after a start.)

local LINK = network_id .. "_9_0"  -- UP or DOWN
local RETRY = 2000000              -- microseconds
local up = false

function ROVIK_INIT(me)
  m_p = me
end

local function tell(state)
  up = state == "UP"
  sndDATA(LINK, "string", state, "BC")
end

function ROVIK_RCVOPEN()
  tell("UP")
end

function ROVIK_RCVCLOSE()
  tell("DOWN")
  return RETRY
end

-- The link has been tried just before.
function ROVIK_PERIODIC()
  if not up then return RETRY end
end

-- Lines and requests are the business of the rules.
function ROVIK_RCVIO()
end

function ROVIK_RCV()
end
