-- A first script: prints, swipes with one finger and presses the home button.
print("Hello from Tapwright! Scripts live in " .. rootDir())

touchDown(1, 200, 1000)
for y = 1000, 400, -100 do
    touchMove(1, 200, y)
    usleep(16000)
end
touchUp(1, 200, 400)
usleep(100000)

pressKey(KEY_TYPE.HOME_BUTTON)
print("Done.")
