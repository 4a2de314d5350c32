#pragma once
// The firmware's two ways to a picture: the Graphics Output Protocol, and
// the older UGA Draw protocol, which tells the screen's size but not where
// its framebuffer lies.
#include <cstdint>
#include <memory>
#include <string>

#include "launch/video_edid.h"
#include "launch/video_record.h"

namespace EfiLoader {

class EfiVideo {
public:
    virtual ~EfiVideo() = default;
    virtual std::string Name() const = 0;
    // Fills what the protocol knows of the present mode into `record`, after
    // choosing a mode where the protocol lets it. Raises on failure.
    virtual void Query(VideoRecord& record) = 0;
    // Paints one colour through the firmware. Raises on failure.
    virtual void FillRectangle(std::uint32_t x, std::uint32_t y, std::uint32_t width, std::uint32_t height, std::uint8_t red,
                               std::uint8_t green, std::uint8_t blue, std::uint8_t reserved) = 0;
};

class EfiVideoGop : public EfiVideo {
public:
    std::string Name() const override { return "GOP"; }
    // Picks the best mode the monitor can show, at most 1024 pixels wide,
    // switches to it, and describes it; else describes the present mode.
    void Query(VideoRecord& record) override;
    void FillRectangle(std::uint32_t x, std::uint32_t y, std::uint32_t width, std::uint32_t height, std::uint8_t red,
                       std::uint8_t green, std::uint8_t blue, std::uint8_t reserved) override;

private:
    // The monitor, asked for its EDID once and remembered.
    const MonitorFilter& Monitor();

    std::unique_ptr<MonitorFilter> monitor_;
};

class EfiVideoUga : public EfiVideo {
public:
    std::string Name() const override { return "UGA"; }
    // Keeps a mode from 800 to 1024 pixels wide, else sets one; fills only
    // width, height and depth.
    void Query(VideoRecord& record) override;
    void FillRectangle(std::uint32_t x, std::uint32_t y, std::uint32_t width, std::uint32_t height, std::uint8_t red,
                       std::uint8_t green, std::uint8_t blue, std::uint8_t reserved) override;
};

}  // namespace EfiLoader
