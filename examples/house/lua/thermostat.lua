-- Keeps the water of the boiler between two temperatures: hears what the boiler reports and asks it
-- to heat or to stop. It needs no device of its own.

local TEMPERATURE = "5_1_0" -- what the boiler reports, see house.conf
local BURNER = "5_2_0"      -- what it is asked for, and reports as its answer
local LINK = "5_9_0"        -- whether it can be reached
local ON_BELOW = 20.5       -- degrees; two limits, so that it does not switch to and fro
local OFF_ABOVE = 21.5

local MICROSECONDS = 1000000
local SLOWLY = 30 * MICROSECONDS -- the timer is not needed: as seldom as it goes

local wanted -- "ON" or "OFF"; nil until one of the limits has been passed
local burner -- what the boiler has last said that it does

function ROVIK_INIT(me)
  m_p = me
end

-- Asks again with each temperature until the boiler has answered: a request is lost while its link
-- is down.
local function control(temperature)
  if temperature < ON_BELOW then wanted = "ON" end
  if temperature > OFF_ABOVE then wanted = "OFF" end
  if wanted and wanted ~= burner then
    print(temperature .. " degrees: heat " .. wanted)
    sndACTUATOR_REQUEST(BURNER, "string", wanted, "boiler")
  end
end

function ROVIK_RCV(msg)
  if msg.type == "MM_DATA" and msg.key == BURNER then burner = msg.value end
  -- A boiler that was away may have lost its power: nothing is known of its burner.
  if msg.type == "MM_DATA" and msg.key == LINK then burner = nil end
  if msg.type == "MM_DATA" and msg.key == TEMPERATURE then
    local temperature = tonumber(msg.value)
    if temperature then control(temperature) end
  end
  return SLOWLY
end

function ROVIK_PERIODIC()
  return SLOWLY
end
