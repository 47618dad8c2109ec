#include "image_context_dfb.h"

#include <cstring>

#include "dfb_utils.h"

namespace korvane {

ImageContext* createImageContext(void* buffer, int width, int height, std::string path) {
    if (path.empty()) {
        return ImageContextDFB::create(buffer, width, height);
    }
    return ImageContextDFB::create(width, height, path);
}

ImageContextDFB* ImageContextDFB::create(void* buffer, int width, int height) {
    OVL_TRACE();
    auto* image = new ImageContextDFB();
    image->loadFromBuffer(buffer, width, height);
    return image;
}

ImageContextDFB* ImageContextDFB::create(int width, int height, std::string path) {
    OVL_TRACE();
    auto* image = new ImageContextDFB();
    image->loadFromFile(width, height, path);
    if (width >= 1 && height >= 1) {
        image->setScaledContentSize(width, height);
    }
    return image;
}

ImageContextDFB::~ImageContextDFB() {
    if (m_surface != nullptr) {
        m_surface->Release(m_surface);
    }
}

void ImageContextDFB::loadFromBuffer(void* buffer, int width, int height) {
    OVL_TRACE();
    if (buffer == nullptr) {
        return;
    }
    m_DFB = getDFB();
    if (m_DFB == nullptr) {
        return;
    }

    // No copy: DirectFB reads the caller's pixels whenever the image is drawn.
    const SurfaceBuffer buffers[2] = {{buffer, width * 3}, {nullptr, 0}};
    DFBSurfaceDescription desc = describeSurface(width, height, DSPF_RGB24, std::nullopt, buffers);

    IDirectFBSurface* surface = nullptr;
    DFBResult ret = m_DFB->CreateSurface(m_DFB, &desc, &surface);
    if (ret != DFB_OK) {
        OVL_FATAL(ret, "m_DFB->CreateSurface(m_DFB, &desc, &surface)");
        return;
    }

    if (width >= 1 && m_width < 1) {
        m_width = width;
    }
    if (height >= 1 && m_height < 1) {
        m_height = height;
    }
    m_surface = surface;
    OVL_LOGD("Image Surface:  %p\n", static_cast<void*>(m_surface));
}

void ImageContextDFB::loadFromFile(int /*width*/, int /*height*/, std::string path) {
    OVL_TRACE();
    OVL_LOGD("Create Super inteface  for ...  %s\n", path.c_str());
    m_DFB = getDFB();
    if (m_DFB == nullptr) {
        return;
    }

    DFBSurfaceDescription desc;
    std::memset(&desc, 0, sizeof(desc));
    desc.flags = DSDESC_CAPS;
    desc.caps = static_cast<DFBSurfaceCapabilities>(DSCAPS_PRIMARY | DSCAPS_DOUBLE);
    IDirectFBSurface* dfb_surface = nullptr;
    DFBResult ret = m_DFB->CreateSurface(m_DFB, &desc, &dfb_surface);
    if (ret != DFB_OK) {
        OVL_FATAL(ret, "m_DFB->CreateSurface(m_DFB, &desc, &dfb_surface)");
        return;
    }
    int screenWidth = 0;
    int screenHeight = 0;
    dfb_surface->GetSize(dfb_surface, &screenWidth, &screenHeight);
    OVL_LOGD("width:%d,height:%d\n", screenWidth, screenHeight);
    // Only its size was wanted; kept alive, a primary surface would cover the primary layer.
    dfb_surface->Release(dfb_surface);

    IDirectFBImageProvider* provider = nullptr;
    ret = m_DFB->CreateImageProvider(m_DFB, path.c_str(), &provider);
    if (ret != DFB_OK) {
        OVL_FATAL(ret, "m_DFB->CreateImageProvider(m_DFB, path.c_str(), &provider)");
        return;
    }
    std::memset(&desc, 0, sizeof(desc));
    ret = provider->GetSurfaceDescription(provider, &desc);
    if (ret != DFB_OK) {
        OVL_FATAL(ret, "provider->GetSurfaceDescription(provider, &desc)");
        provider->Release(provider);
        return;
    }
    OVL_LOGD("Desc: width: %d, height: %d, pixformat idx: %d, caps: 0x%x \n", desc.width, desc.height,
             static_cast<int>(desc.pixelformat & 0x7F), static_cast<unsigned int>(desc.caps));

    if (desc.width > 0 && m_width < 1) {
        m_width = desc.width;
    }
    if (desc.height > 0 && m_height < 1) {
        m_height = desc.height;
    }

    IDirectFBSurface* logo = nullptr;
    ret = m_DFB->CreateSurface(m_DFB, &desc, &logo);
    if (ret != DFB_OK) {
        OVL_FATAL(ret, "m_DFB->CreateSurface(m_DFB, &desc, &logo)");
        provider->Release(provider);
        return;
    }
    ret = provider->RenderTo(provider, logo, nullptr);
    if (ret != DFB_OK) {
        OVL_FATAL(ret, "provider->RenderTo(provider, logo, nullptr)");
        logo->Release(logo);
        provider->Release(provider);
        return;
    }
    provider->Release(provider);
    m_surface = logo;
    OVL_LOGD("Image Surface:  %s, %p\n", path.c_str(), static_cast<void*>(m_surface));
}

void ImageContextDFB::setScaledContentSize(int width, int height) {
    m_width = width;
    m_height = height;
}

int ImageContextDFB::width() {
    return m_width;
}

int ImageContextDFB::height() {
    return m_height;
}

IDirectFBSurface* ImageContextDFB::getSurface() {
    return m_surface;
}

}  // namespace korvane
