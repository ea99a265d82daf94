-- Puts the lines of the energy meter together into telegrams, and reports what a telegram says when
-- its checksum is right. Of a broken telegram nothing is reported but that it was broken.

-- What is reported: value number, type and factor by the code and unit of a line. Energies go out
-- in whole watt hours: a float keeps about seven digits, fewer than a meter has.
local READINGS = {
  ["1-0:1.8.0*kWh"] = { key = "1_1", type = "int", factor = 1000 },    -- drawn, Wh
  ["1-0:2.8.0*kWh"] = { key = "1_2", type = "int", factor = 1000 },    -- fed, Wh
  ["1-0:1.7.0*kW"] = { key = "2_1", type = "int", factor = 1000 },     -- drawing now, W
  ["1-0:2.7.0*kW"] = { key = "2_2", type = "int", factor = 1000 },     -- feeding now, W
  ["1-0:32.7.0*V"] = { key = "3_1", type = "float", factor = 1 },      -- phase 1
  ["1-0:52.7.0*V"] = { key = "3_2", type = "float", factor = 1 },      -- phase 2
  ["1-0:72.7.0*V"] = { key = "3_3", type = "float", factor = 1 },      -- phase 3
}
local BROKEN = "9_0"         -- the number of broken telegrams
local MOST_BYTES = 8192      -- of a telegram
local MOST_SILENCE = 3       -- ticks without a telegram until that is told

local tick = 5000000         -- microseconds
local silence = 0            -- ticks since the last telegram
local good, broken = 0, 0    -- telegrams
local telegram               -- what has come of it; nil until one begins, or after a loss

function ROVIK_INIT(me)
  m_p = me
end

-- A word of energy_meter.conf. (The first thing that a script returns decides whether its delays
-- are taken: it has to be a number, or a text that is one.)
function telegram_every(words)
  tick = 1000000 * assert(tonumber(words.arg1), "telegram_every takes a number of seconds")
  return words.arg1
end

-- A command: drovane cmd energy_meter statistics
function statistics()
  return string.format("%d telegrams, %d broken", good + broken, broken)
end

-- CRC-16 with the polynomial 0x8005, lowest bit first, beginning with 0.
local function crc16(bytes)
  local crc = 0
  for i = 1, #bytes do
    crc = bit32.bxor(crc, bytes:byte(i))
    for _ = 1, 8 do
      local low = bit32.band(crc, 1)
      crc = bit32.bxor(bit32.rshift(crc, 1), low * 0xA001)
    end
  end
  return crc
end

local function send(key, type, value)
  sndDATA(network_id .. "_" .. key, type, value, "BC")
end

-- A message for people; it is in the log as well.
local function tell(text)
  sndMM({ type = "MM_MSG", channel = 1, msg = text }, "BC")
end

-- Lines such as 1-0:1.8.0(001234.567*kWh). A telegram has others, which are passed over.
local function report()
  for code, number, unit in telegram:gmatch("\n([%d:.-]+)%(([%d.]+)(%*%a+)%)\r") do
    local reading, value = READINGS[code .. unit], tonumber(number)
    if reading and value then
      value = value * reading.factor
      if reading.type == "int" then value = math.floor(value + 0.5) end
      send(reading.key, reading.type, value)
    end
  end
end

local function drop(reason)
  telegram = nil
  broken = broken + 1
  tell("telegram dropped: " .. reason)
  send(BROKEN, "int", broken)
end

-- What stands behind the "!" is the checksum of everything up to there, the "!" included.
local function finish(claimed)
  local computed = string.format("%04X", crc16(telegram))
  if claimed ~= computed then
    drop(string.format("its checksum is %s, not %s", computed, escape(claimed:sub(1, 8))))
  else
    good = good + 1
    report()
  end
  telegram = ""
  silence = 0
end

-- Lines come escaped; the checksum is one of the bytes. Whoever opens the line comes into the
-- middle of a telegram: until the first one begins or ends, lines mean nothing.
function ROVIK_RCVIO(data)
  local line = unescape(data)
  local first = line:sub(1, 1)
  if first == "/" then
    if telegram and telegram ~= "" then drop("it was cut off by the next one") end
    telegram = line
  elseif first == "!" then
    if not telegram then
      telegram = ""
    else
      telegram = telegram .. first
      finish(line:match("^!(.-)\r?\n$"))
    end
  elseif telegram then
    telegram = telegram .. line
    if #telegram > MOST_BYTES then drop("it is too long") end
  end
end

function ROVIK_RCVOPEN()
  telegram, silence = nil, 0
  return tick
end

function ROVIK_RCVCLOSE()
  if telegram and telegram ~= "" then drop("it was cut off with the link") end
end

function ROVIK_PERIODIC()
  silence = silence + 1
  if silence == MOST_SILENCE then
    tell(string.format("no telegram for %g seconds", silence * tick / 1000000))
  end
  return tick
end

function ROVIK_RCV()
end
