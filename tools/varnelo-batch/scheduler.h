#pragma once

// The schedule of a batch: which images (a photo's copy or its thumbnail) are queued, which are
// in flight in which request, which were answered, sent again or given up. It decides what
// to send next and what an answer or a death of the service settles, and does no input or
// output of its own: the driver sends, receives and acts on what it returns.
//
// Rules:
// - About two requests per service worker are in flight; a request holds up to 8 images of
//   one kind, fewer towards the end so that every worker stays busy. With a limit on photos
//   in flight, a request takes no image whose photo would exceed it.
// - Answers are matched by imageId, in whatever order they come. One response answers its
//   whole request: an image of it that the response leaves out will not come, and fails.
// - When the service dies, the images it held are sent again, alone and one at a time; an
//   image in flight at two deaths fails, so that a photo that kills the service is found
//   without taking the others with it.
// One thread uses a Scheduler.

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <vector>

#include "service_client.h"

namespace Varnelo {

struct Request {
    int number = 0;
    bool thumbnail = false;
    std::vector<int> ids;  // imageIds, in the order to send them
    std::uint64_t bytes = 0;
    bool suspect = false;  // one image sent alone after a death of the service
};

// An image that the scheduler settled, and how.
struct Settled {
    int id = 0;
    ImageResult result;
    bool processed = true;  // false: dropped before the service made it
};

class Scheduler {
  public:
    static constexpr std::size_t kMaxPerRequest = 8;

    // `workers` is the service's number of workers; `maxPhotos` limits the photos in flight
    // (0 for no limit beyond the requests).
    Scheduler(std::size_t workers, std::size_t maxPhotos);

    // Queues an image of `photo` of `bytes` bytes; returns its imageId (1, 2, ...).
    int Add(std::size_t photo, bool thumbnail, std::uint64_t bytes);
    std::size_t PhotoOf(int id) const { return m_images[id - 1].photo; }
    bool IsThumbnail(int id) const { return m_images[id - 1].thumbnail; }

    // Takes the next request to send now into `request`; false when there is none.
    bool Next(Request& request);
    // The images one response answered, by imageId; unknown and settled ids are ignored.
    std::vector<Settled> Answered(const std::vector<std::pair<int, ImageResult>>& images);
    // The service died or hung: what it held is queued again or fails.
    std::vector<Settled> Died();
    // Closes every image not yet answered, unprocessed, with `reason`.
    std::vector<Settled> DropAll(const std::string& reason);

    bool Open() const { return m_open > 0; }  // images not yet settled
    bool InFlight() const { return !m_inFlight.empty(); }
    bool Queued() const {
        return !m_queue[0].empty() || !m_queue[1].empty() || !m_suspects.empty();
    }
    std::uint64_t BiggestInFlight() const;
    std::size_t PhotosInFlight() const { return m_photosInFlight.size(); }

  private:
    struct Image {
        std::size_t photo;
        bool thumbnail;
        std::uint64_t bytes;
        int deaths = 0;
        int request = 0;  // in flight in this request, or 0
        bool settled = false;
    };

    bool Fits(int id) const;
    void Launch(int id, Request& request);
    void Land(int id);  // no longer in flight
    Settled Close(int id, ImageResult result, bool processed = true);

    const std::size_t m_workers, m_maxPhotos;
    std::vector<Image> m_images;             // imageId n is m_images[n - 1]
    std::deque<int> m_queue[2], m_suspects;  // copies and thumbnails; sent again
    std::map<int, Request> m_inFlight;
    std::map<std::size_t, int> m_photosInFlight;  // photo -> images in flight
    int m_nextRequest = 1;
    bool m_suspectInFlight = false;
    std::size_t m_open = 0;
};

}  // namespace Varnelo
