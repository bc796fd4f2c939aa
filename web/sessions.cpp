#include "web/sessions.h"

#include <algorithm>

#include "web/password.h"

namespace {

using namespace std::chrono_literals;

constexpr auto IDLE_TIME = 30min;
constexpr auto LONGEST_TIME = 12h;
constexpr size_t MOST_SESSIONS = 8;
constexpr size_t MOST_GUESSERS = 64;
constexpr int GUESSES = 5;
constexpr auto LOCKED_OUT = 60s;
constexpr size_t SECRET_BYTES = 32;
constexpr size_t KNOWN_BYTES = 16;

}  // namespace

web_sessions::web_sessions(std::string password_line) : password_line_(std::move(password_line)) {}

void web_sessions::let_in(const std::string& digest) {
    if (sessions_.size() >= MOST_SESSIONS) {
        sessions_.erase(std::ranges::min_element(sessions_, {}, &web_session::used));
    }
    const auto now = web_clock::now();
    sessions_.push_back({digest, random_text(SECRET_BYTES), now, now});
}

web_session* web_sessions::find(const std::string& id) {
    const auto now = web_clock::now();
    std::erase_if(sessions_, [now](const web_session& session) {
        return now - session.used > IDLE_TIME || now - session.begun > LONGEST_TIME;
    });
    const std::string wanted = digest(id);
    for (web_session& session : sessions_) {
        if (!is_same_secret(session.digest, wanted)) continue;
        session.used = now;
        return &session;
    }
    return nullptr;
}

void web_sessions::end(const web_session* session) {
    sessions_.remove_if([session](const web_session& other) { return &other == session; });
}

std::string web_sessions::sign(const std::string& random) const {
    return random + in_hex(keyed_digest(password_line_, "known browser " + random));
}

web_sessions::guesser& web_sessions::find_guesser(const std::string& name) {
    const auto found = std::ranges::find(guessers_, name, &guesser::name);
    if (found != guessers_.end()) {
        guessers_.splice(guessers_.begin(), guessers_, found);
    } else {
        guessers_.push_front({name, 0, {}});
    }
    if (guessers_.size() > MOST_GUESSERS) guessers_.pop_back();
    return guessers_.front();
}

web_sessions::attempt web_sessions::log_in(const std::string& password, const std::string& known,
                                           const std::string& address) {
    const bool is_known = is_same_secret(known, sign(known.substr(0, 2 * KNOWN_BYTES)));
    guesser& who = find_guesser(is_known ? known : address);
    const auto now = web_clock::now();
    attempt result;
    if (now < who.until) {
        // Trying on does not make it longer.
        result.wait_secs = static_cast<int>(std::chrono::ceil<std::chrono::seconds>(who.until - now).count());
        return result;
    }
    if (!is_password(password_line_, password)) {
        if (++who.wrong < GUESSES) return result;
        who.wrong = 0;
        who.until = now + LOCKED_OUT;
        return result;
    }
    who.wrong = 0;
    result.id = random_text(SECRET_BYTES);
    result.known = is_known ? known : sign(random_text(KNOWN_BYTES));
    let_in(digest(result.id));
    return result;
}
