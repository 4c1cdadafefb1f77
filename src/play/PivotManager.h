#pragma once
// The play controller of the home-screen process: turns what a person asks for (the control
// panel, a trigger, the command line) into recordings and plays. Main run loop only.
namespace tw {

class PivotManager {
public:
    static PivotManager& sharedInstance();

    // The control panel's record button: vibrates when the setting says so, then records.
    void controlPanelViewDidClickOnRecord();
    // Ends the recording; vibrates and says "Recording Finished!" when the settings say so.
    void stopRecording();

private:
    PivotManager() = default;
};

}  // namespace tw
