-- Runs in every new script state before the script itself: constants and helpers for scripts.

-- Hardware keys for keyDown/keyUp: usages of the HID consumer page (page 12).
KEY_TYPE = {
    HOME_BUTTON = 0x40,   -- Menu
    POWER_BUTTON = 0x30,  -- Power
    VOLUME_UP = 0xE9,     -- Volume Increment
    VOLUME_DOWN = 0xEA,   -- Volume Decrement
}

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
