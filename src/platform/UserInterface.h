#pragma once
// What the engine shows to the user and the sounds it plays. Calls come on the main run loop.
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace tw {

struct AlertRequest {
    std::string title;    // empty: no title
    std::string message;
    std::vector<std::string> buttons;
};

// One control of a script's form.
enum class DialogControlType { Label = 1, Input = 2, Picker = 3, Switch = 4 };

struct DialogControl {
    DialogControlType type = DialogControlType::Label;
    std::string text;                  // a label's text
    std::string title;                 // the other controls' caption
    std::string key;                   // the answer's key
    std::string value;                 // an input's text, a picker's chosen option
    std::vector<std::string> options;  // a picker's options
    bool on = false;                   // a switch's state
    bool numeric = false;              // a switch given as 0/1: its answer goes back as 0/1 too
};

// A button of a form; when a form has buttons they replace "Cancel" and "Confirm".
struct DialogButton {
    std::string title;
    uint32_t color = 0;          // 0xRRGGBB
    double width = 1.0;          // share of the form's width, at most 1
    int64_t flag = 0;            // what the script gets back when it is pressed
    bool collectInputs = false;  // whether pressing it hands back (and remembers) the answers
};

struct DialogRequest {
    std::string scriptPath;  // the library path of the script that asks
    std::vector<DialogControl> controls;
    bool remember = false;   // the initial state of the form's "Remember" switch
    std::vector<DialogButton> buttons;  // empty: "Cancel" and "Confirm"
    std::vector<int> orientations;      // the orientations the form may take (1 to 4); empty: any
};

// What the user answered: per key, the text of an input or picker, or the state of a switch.
using DialogAnswer = std::variant<std::string, bool>;

struct DialogResponse {
    bool cancelled = false;
    bool remember = false;
    std::map<std::string, DialogAnswer> answers;
    std::optional<size_t> button;  // a form with buttons: the index of the one pressed
};

// A short message that waits for nobody and goes away by itself.
struct ToastRequest {
    std::string text;
    double seconds = 2;
    std::string position = "bottom";  // "top", "center" or "bottom"
};

// What an alert with a delegate reports: that it is on screen, the button clicked and the button
// it went away with (indexes into the request's buttons; 0 is the first, the cancel button).
struct AlertDelegate {
    std::function<void()> didPresent;
    std::function<void(int buttonIndex)> clickedButtonAtIndex;
    std::function<void(int buttonIndex)> didDismissWithButtonIndex;
};

// A script of the control panel's list, with the marks it shows beside the name.
struct ControlPanelScript {
    std::string path;  // library path, "/name.lua"
    bool hasTrigger = false;
    bool hasPlaySettings = false;
    bool hasTimer = false;
};

struct ControlPanelDelegate {
    std::function<void()> didClickOnRecord;
    std::function<void(const std::string& path)> didSelectScript;
    std::function<void()> didClickOnScreenshot;
    std::function<void()> didDismiss;  // after any of the above, or when closed
};

// The play settings sheet: what it shows, and what the user confirmed.
struct PlaySettingsSheet {
    std::string filePath;
    int64_t repeatTime = 1;
    int64_t repeatInterval = 1;
    double playSpeed = 1.0;
    bool playDirectly = false;
    int32_t playNowOrLater = 0;  // 0 play now, 1 play later (ready to play)
};

struct PlaySettingsViewDelegate {
    std::function<void(const PlaySettingsSheet& chosen)> didConfirmToPlay;
    std::function<void()> didDismiss;
};

// An alert with one text field.
struct TextPromptRequest {
    std::string title;
    std::string message;
    std::vector<std::string> buttons;  // the cancel button first
};

struct TextPromptDelegate {
    std::function<void(int buttonIndex, const std::string& text)> clickedButtonAtIndex;
    std::function<void()> didDismiss;
};

class UserInterface {
public:
    virtual ~UserInterface() = default;
    // Shows an alert without a delegate: nothing waits for the button.
    virtual void showAlert(const AlertRequest& alert) = 0;
    // The views below report through their delegates on the main run loop. An interface that
    // cannot ask anybody shows what it can and dismisses each at once, as its cancel button would.
    virtual void showAlert(const AlertRequest& alert, AlertDelegate delegate) {
        showAlert(alert);
        if (delegate.didPresent) delegate.didPresent();
        if (delegate.clickedButtonAtIndex) delegate.clickedButtonAtIndex(0);
        if (delegate.didDismissWithButtonIndex) delegate.didDismissWithButtonIndex(0);
    }
    virtual void showControlPanel(const std::vector<ControlPanelScript>&, ControlPanelDelegate delegate) {
        if (delegate.didDismiss) delegate.didDismiss();
    }
    virtual void showPlaySettingsView(const PlaySettingsSheet&, PlaySettingsViewDelegate delegate) {
        if (delegate.didDismiss) delegate.didDismiss();
    }
    virtual void showTextPrompt(const TextPromptRequest&, TextPromptDelegate delegate) {
        if (delegate.clickedButtonAtIndex) delegate.clickedButtonAtIndex(0, "");
        if (delegate.didDismiss) delegate.didDismiss();
    }
    // Shows a form with "Cancel" and "Confirm" and waits for the user. Called on the main run
    // loop; an interface that cannot ask anybody answers as "Cancel" would.
    virtual DialogResponse showDialog(const DialogRequest& request) = 0;
    // Shows a toast; returns at once.
    virtual void showToast(const ToastRequest& toast) = 0;
};

class SoundService {
public:
    virtual ~SoundService() = default;
    // Plays a system sound by id (4095 vibrates).
    virtual void playSystemSound(uint32_t soundId) = 0;
};

inline constexpr uint32_t kSystemSoundVibrate = 4095;

}  // namespace tw
