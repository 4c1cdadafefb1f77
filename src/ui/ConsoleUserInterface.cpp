#include "ui/ConsoleUserInterface.h"

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <stdexcept>

namespace tw {

void ConsoleUserInterface::showAlert(const AlertRequest& alert) {
    // "[alert] Title: message [OK]"
    std::string line = "[alert] ";
    if (!alert.title.empty()) line += alert.title + ": ";
    line += alert.message;
    for (const auto& b : alert.buttons) line += " [" + b + "]";
    std::fprintf(out_, "%s\n", line.c_str());
    std::fflush(out_);
}

void ConsoleUserInterface::showToast(const ToastRequest& toast) {
    std::fprintf(out_, "[toast] %s\n", toast.text.c_str());
    std::fflush(out_);
}

void ConsoleUserInterface::showControlPanel(const std::vector<ControlPanelScript>& scripts, ControlPanelDelegate delegate) {
    std::fprintf(out_, "[control panel] %zu scripts\n", scripts.size());
    std::fflush(out_);
    UserInterface::showControlPanel(scripts, std::move(delegate));
}

void ConsoleUserInterface::showPlaySettingsView(const PlaySettingsSheet& sheet, PlaySettingsViewDelegate delegate) {
    std::fprintf(out_, "[play settings] %s\n", sheet.filePath.c_str());
    std::fflush(out_);
    UserInterface::showPlaySettingsView(sheet, std::move(delegate));
}

void ConsoleUserInterface::showTextPrompt(const TextPromptRequest& request, TextPromptDelegate delegate) {
    std::fprintf(out_, "[prompt] %s\n", request.message.c_str());
    std::fflush(out_);
    UserInterface::showTextPrompt(request, std::move(delegate));
}

void ConsoleSoundService::playSystemSound(uint32_t soundId) {
    if (!verbose_) return;
    if (soundId == kSystemSoundVibrate)
        std::fprintf(out_, "[vibrate]\n");
    else
        std::fprintf(out_, "[sound %u]\n", soundId);
    std::fflush(out_);
}

}  // namespace tw

namespace tw {

DialogResponse dialogResponseFromJson(const DialogRequest& request, const std::string& text) {
    const auto json = nlohmann::json::parse(text);
    if (!json.is_object()) throw std::runtime_error("a dialog answer must be a JSON object");
    DialogResponse response;
    response.remember = json.value("remember", request.remember);
    if (!request.buttons.empty()) {
        // A form with buttons is answered by pressing one, named by its flag (the first by default).
        const auto pressed = json.find("button");
        if (pressed != json.end() && !pressed->is_number_integer())
            throw std::runtime_error("\"button\" must be the flag of one of the form's buttons");
        response.button = 0;
        if (pressed != json.end()) {
            response.button.reset();
            for (size_t i = 0; i < request.buttons.size() && !response.button; ++i)
                if (request.buttons[i].flag == pressed->get<int64_t>()) response.button = i;
            if (!response.button) throw std::runtime_error("no button of the form has the flag " + pressed->dump());
        }
    } else if (json.value("cancel", false)) {
        response.cancelled = true;
        return response;
    }
    for (const auto& control : request.controls) {
        if (control.type == DialogControlType::Label) continue;
        auto it = json.find(control.key);
        if (control.type == DialogControlType::Switch) {
            bool on = control.on;
            if (it != json.end()) {
                if (it->is_boolean())
                    on = it->get<bool>();
                else if (it->is_number_integer() && (it->get<int64_t>() == 0 || it->get<int64_t>() == 1))
                    on = it->get<int64_t>() == 1;
                else
                    throw std::runtime_error("the answer for '" + control.key + "' must be true, false, 0 or 1");
            }
            response.answers[control.key] = on;
            continue;
        }
        std::string value = control.value;
        if (it != json.end()) {
            if (!it->is_string()) throw std::runtime_error("the answer for '" + control.key + "' must be a text");
            value = it->get<std::string>();
        }
        if (control.type == DialogControlType::Picker && !control.options.empty()) {
            bool known = false;
            for (const auto& o : control.options) known = known || o == value;
            if (!known) throw std::runtime_error("'" + value + "' is not an option of '" + control.key + "'");
        }
        response.answers[control.key] = value;
    }
    return response;
}

void ConsoleUserInterface::loadAnswers(const std::string& path) {
    std::ifstream in(path);
    if (!in) throw std::runtime_error("cannot read the answers file " + path);
    const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    nlohmann::json json;
    try {
        json = nlohmann::json::parse(text);
    } catch (const std::exception& e) {
        throw std::runtime_error("the answers file " + path + " is not JSON: " + e.what());
    }
    if (!json.is_array()) throw std::runtime_error("the answers file " + path + " must hold a JSON array of objects");
    for (const auto& answer : json) {
        if (!answer.is_object()) throw std::runtime_error("the answers file " + path + " must hold a JSON array of objects");
        answers_.push_back(answer.dump());
    }
}

DialogResponse ConsoleUserInterface::showDialog(const DialogRequest& request) {
    if (!answers_.empty()) {
        const std::string answer = answers_.front();
        answers_.pop_front();
        try {
            return dialogResponseFromJson(request, answer);
        } catch (const std::exception& e) {
            std::fprintf(out_, "[dialog] bad answer (%s): cancelled\n", e.what());
            return DialogResponse{true, false, {}};
        }
    }
    if (interactive_) return ask(request);
    if (!request.buttons.empty()) {
        std::fprintf(out_, "[dialog] no terminal and no answers left: pressing \"%s\"\n",
                     request.buttons.front().title.c_str());
        std::fflush(out_);
        return dialogResponseFromJson(request, "{}");
    }
    std::fprintf(out_, "[dialog] no terminal and no answers left (tapwright play --answers FILE): cancelled\n");
    std::fflush(out_);
    return DialogResponse{true, false, {}};
}

namespace {

std::string readLine(std::FILE* in) {
    std::string line;
    int c;
    while ((c = std::fgetc(in)) != EOF && c != '\n') line.push_back(static_cast<char>(c));
    return line;
}

}  // namespace

DialogResponse ConsoleUserInterface::ask(const DialogRequest& request) {
    DialogResponse response;
    response.remember = request.remember;
    std::fprintf(out_, "[dialog] (an empty answer keeps the value in brackets; \"cancel\" cancels)\n");
    for (const auto& control : request.controls) {
        if (control.type == DialogControlType::Label) {
            std::fprintf(out_, "  %s\n", control.text.c_str());
            continue;
        }
        for (;;) {
            std::string shown = control.type == DialogControlType::Switch ? (control.on ? "on" : "off") : control.value;
            if (control.type == DialogControlType::Picker) {
                std::string list;
                for (size_t i = 0; i < control.options.size(); ++i) list += (i ? ", " : "") + control.options[i];
                std::fprintf(out_, "  %s (%s) [%s]: ", control.title.c_str(), list.c_str(), shown.c_str());
            } else if (control.type == DialogControlType::Switch) {
                std::fprintf(out_, "  %s (on/off) [%s]: ", control.title.c_str(), shown.c_str());
            } else {
                std::fprintf(out_, "  %s [%s]: ", control.title.c_str(), shown.c_str());
            }
            std::fflush(out_);
            if (std::feof(in_)) return DialogResponse{true, false, {}};
            const std::string line = readLine(in_);
            if (line == "cancel") return DialogResponse{true, false, {}};
            if (control.type == DialogControlType::Switch) {
                if (line.empty()) response.answers[control.key] = control.on;
                else if (line == "on" || line == "yes" || line == "1") response.answers[control.key] = true;
                else if (line == "off" || line == "no" || line == "0") response.answers[control.key] = false;
                else continue;
                break;
            }
            const std::string value = line.empty() ? control.value : line;
            if (control.type == DialogControlType::Picker && !control.options.empty()) {
                bool known = false;
                for (const auto& o : control.options) known = known || o == value;
                if (!known) continue;
            }
            response.answers[control.key] = value;
            break;
        }
    }
    std::fprintf(out_, "  Remember these answers (on/off) [%s]: ", response.remember ? "on" : "off");
    std::fflush(out_);
    const std::string remember = readLine(in_);
    if (remember == "on" || remember == "yes") response.remember = true;
    if (remember == "off" || remember == "no") response.remember = false;
    if (!request.buttons.empty()) {
        for (;;) {
            std::fprintf(out_, "  Press");
            for (size_t i = 0; i < request.buttons.size(); ++i)
                std::fprintf(out_, " [%zu] %s", i + 1, request.buttons[i].title.c_str());
            std::fprintf(out_, " [1]: ");
            std::fflush(out_);
            if (std::feof(in_)) return DialogResponse{true, false, {}};
            const std::string line = readLine(in_);
            const size_t chosen = line.empty() ? 1 : std::strtoul(line.c_str(), nullptr, 10);
            if (chosen < 1 || chosen > request.buttons.size()) continue;
            response.button = chosen - 1;
            break;
        }
    }
    return response;
}

}  // namespace tw
