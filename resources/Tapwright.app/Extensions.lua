-- Runs in every new script state before the script itself: constants and helpers for scripts.

-- Hardware keys for keyDown/keyUp: usages of the HID consumer page (page 12).
KEY_TYPE = {
    HOME_BUTTON = 0x40,   -- Menu
    POWER_BUTTON = 0x30,  -- Power
    VOLUME_UP = 0xE9,     -- Volume Increment
    VOLUME_DOWN = 0xEA,   -- Volume Decrement
}
-- The names newer scripts use for the same keys.
KEY_TYPE.VOLUME_UP_BUTTON = KEY_TYPE.VOLUME_UP
KEY_TYPE.VOLUME_DOWN_BUTTON = KEY_TYPE.VOLUME_DOWN

-- Device orientations for adaptOrientation/getOrientation.
ORIENTATION_TYPE = {
    PORTRAIT = 1,
    PORTRAIT_UPSIDE_DOWN = 2,
    LANDSCAPE_LEFT = 3,
    LANDSCAPE_RIGHT = 4,
}

-- A tap: one finger down and up again at (x, y), holding it for `holdMicroseconds` (default 50 ms).
function tap(x, y, holdMicroseconds)
    touchDown(0, x, y)
    usleep(holdMicroseconds or 50000)
    touchUp(0, x, y)
    usleep(16000)
end

-- A press of a hardware key, e.g. pressKey(KEY_TYPE.HOME_BUTTON).
function pressKey(key, holdMicroseconds)
    keyDown(key)
    usleep(holdMicroseconds or 100000)
    keyUp(key)
end

-- Control types for dialog(controls, remember).
DIALOG_CONTROL = {
    LABEL = 1,   -- { type = DIALOG_CONTROL.LABEL, text = "..." }
    INPUT = 2,   -- { type = DIALOG_CONTROL.INPUT, title = "...", key = "...", value = "default" }
    PICKER = 3,  -- { type = DIALOG_CONTROL.PICKER, title = "...", key = "...", options = {"a", "b"}, value = "a" }
    SWITCH = 4,  -- { type = DIALOG_CONTROL.SWITCH, title = "...", key = "...", value = true }
}

-- The control types of the newer form of dialog(controls [, orientations]): the four above, plus
-- REMEMBER = { type = 5, on = false } (the initial state of the "Remember" switch) and
-- BUTTON = { type = 6, title = "...", color = 0xRRGGBB, width = 0.5, flag = N, collectInputs = true }.
CONTROLLER_TYPE = {
    LABEL = DIALOG_CONTROL.LABEL,
    INPUT = DIALOG_CONTROL.INPUT,
    PICKER = DIALOG_CONTROL.PICKER,
    SWITCH = DIALOG_CONTROL.SWITCH,
    REMEMBER = 5,
    BUTTON = 6,
}

-- Helpers that scripts written for newer releases of the API call everywhere.

-- The colour at one point, as getColors reads it: 0xRRGGBB, or nil for a point off the screen.
function getColor(x, y)
    local colors = getColors({{x, y}})
    return colors and colors[1]
end

-- Where one colour appears (a one-point findColors); a table as first argument is a pattern.
function findColor(color, count, region)
    if type(color) == "table" then return findColors(color, count, region) end
    return findColors({{color, 0, 0}}, count, region)
end

-- 0xRRGGBB into red, green and blue, and back (the parts are not masked, as rgb_to_hex does not).
function intToRgb(color)
    return bit32.band(bit32.rshift(color, 16), 0xFF), bit32.band(bit32.rshift(color, 8), 0xFF), bit32.band(color, 0xFF)
end

function rgbToInt(r, g, b)
    return r * 65536 + g * 256 + b
end

function homeButtonDown() keyDown(KEY_TYPE.HOME_BUTTON) end
function homeButtonUp() keyUp(KEY_TYPE.HOME_BUTTON) end

-- Whether the app is the one in front.
function appIsActive(bundleId)
    return frontMostAppId() == bundleId
end

-- The orientation of the app in front, as an ORIENTATION_TYPE value (a device lying flat counts
-- as portrait).
function frontMostAppOrientation()
    local orientation = getOrientation()
    if orientation < ORIENTATION_TYPE.PORTRAIT or orientation > ORIENTATION_TYPE.LANDSCAPE_RIGHT then
        return ORIENTATION_TYPE.PORTRAIT
    end
    return orientation
end

-- The screen's width and height in pixels, portrait.
function getScreenResolution()
    local w, h = getScreenSize()
    local s = getScreenScale()
    return math.floor(math.min(w, h) * s), math.floor(math.max(w, h) * s)
end
