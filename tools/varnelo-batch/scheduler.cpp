#include "scheduler.h"

#include <algorithm>
#include <set>

namespace Varnelo {

namespace {

ImageResult Failure(const std::string& reason) {
    ImageResult result;
    result.reason = reason;
    return result;
}

}  // namespace

Scheduler::Scheduler(std::size_t workers, std::size_t maxPhotos)
    : m_workers(std::max<std::size_t>(workers, 1)), m_maxPhotos(maxPhotos) {}

int Scheduler::Add(std::size_t photo, bool thumbnail, std::uint64_t bytes) {
    m_images.push_back({photo, thumbnail, bytes});
    const int id = static_cast<int>(m_images.size());
    m_queue[thumbnail ? 1 : 0].push_back(id);
    ++m_open;
    return id;
}

bool Scheduler::Fits(int id) const {
    const std::size_t photo = m_images[id - 1].photo;
    return m_maxPhotos == 0 || m_photosInFlight.count(photo) != 0 ||
           m_photosInFlight.size() < m_maxPhotos;
}

void Scheduler::Launch(int id, Request& request) {
    Image& image = m_images[id - 1];
    image.request = request.number;
    ++m_photosInFlight[image.photo];
    request.ids.push_back(id);
    request.bytes += image.bytes;
    request.thumbnail = image.thumbnail;
}

void Scheduler::Land(int id) {
    Image& image = m_images[id - 1];
    image.request = 0;
    const auto it = m_photosInFlight.find(image.photo);
    if (it != m_photosInFlight.end() && --it->second == 0) m_photosInFlight.erase(it);
}

Settled Scheduler::Close(int id, ImageResult result, bool processed) {
    m_images[id - 1].settled = true;
    --m_open;
    result.done = true;
    return {id, result, processed};
}

bool Scheduler::Next(Request& request) {
    const std::size_t target = 2 * m_workers;
    if (m_inFlight.size() >= target) return false;
    request = Request();
    request.number = m_nextRequest;
    if (!m_suspects.empty() && !m_suspectInFlight && Fits(m_suspects.front())) {
        Launch(m_suspects.front(), request);
        m_suspects.pop_front();
        request.suspect = m_suspectInFlight = true;
    } else {
        // The queue whose next photo comes first, so that photos finish roughly in order.
        std::deque<int>* queue = &m_queue[0];
        if (queue->empty() || (!m_queue[1].empty() && m_queue[1].front() < queue->front())) {
            queue = &m_queue[1];
        }
        const std::size_t pending = m_queue[0].size() + m_queue[1].size();
        const std::size_t n = std::clamp<std::size_t>(pending / target, 1, kMaxPerRequest);
        while (request.ids.size() < n && !queue->empty() && Fits(queue->front())) {
            Launch(queue->front(), request);
            queue->pop_front();
        }
    }
    if (request.ids.empty()) return false;
    ++m_nextRequest;
    m_inFlight.emplace(request.number, request);
    return true;
}

std::vector<Settled> Scheduler::Answered(const std::vector<std::pair<int, ImageResult>>& images) {
    std::vector<Settled> settled;
    std::set<int> requests;
    for (const auto& [id, result] : images) {
        if (id < 1 || id > static_cast<int>(m_images.size())) continue;
        const Image& image = m_images[id - 1];
        if (image.settled || image.request == 0) continue;
        requests.insert(image.request);
        std::vector<int>& left = m_inFlight[image.request].ids;
        left.erase(std::remove(left.begin(), left.end(), id), left.end());
        Land(id);
        settled.push_back(Close(id, result));
    }
    for (const int number : requests) {
        const auto request = m_inFlight.find(number);
        for (const int id : request->second.ids) {
            Land(id);
            settled.push_back(Close(id, Failure("no answer from the service")));
        }
        if (request->second.suspect) m_suspectInFlight = false;
        m_inFlight.erase(request);
    }
    return settled;
}

std::vector<Settled> Scheduler::Died() {
    std::vector<Settled> settled;
    for (const auto& entry : m_inFlight) {
        for (const int id : entry.second.ids) {
            Land(id);
            if (++m_images[id - 1].deaths >= 2) {
                settled.push_back(Close(id, Failure("service died on this photo")));
            } else {
                m_suspects.push_back(id);
            }
        }
    }
    m_inFlight.clear();
    m_suspectInFlight = false;
    return settled;
}

std::vector<Settled> Scheduler::DropAll(const std::string& reason) {
    std::vector<Settled> settled;
    for (std::size_t i = 0; i < m_images.size(); ++i) {
        const int id = static_cast<int>(i + 1);
        if (m_images[i].settled) continue;
        Land(id);
        settled.push_back(Close(id, Failure(reason), false));
    }
    m_queue[0].clear();
    m_queue[1].clear();
    m_suspects.clear();
    m_inFlight.clear();
    m_suspectInFlight = false;
    return settled;
}

std::uint64_t Scheduler::BiggestInFlight() const {
    std::uint64_t biggest = 0;
    for (const auto& entry : m_inFlight) biggest = std::max(biggest, entry.second.bytes);
    return biggest;
}

}  // namespace Varnelo
