// vorn demo: walks through what a client meets first, on a built-in sample.
#include <iostream>

#include <vorn/vorn.hpp>

int main() {
  // A 2-axis region of 640 x 480 pixels starting at (10, -5).
  vorn::Box region(2);
  region.m_start[0] = 10;
  region.m_start[1] = -5;
  region.m_size[0] = 640;
  region.m_size[1] = 480;
  std::cout << "Sample region, " << region.volume() << " pixels:" << std::endl;
  region.print();

  for (const char* name : {"unsigned char", "signed short", "float", "double"}) {
    const vorn::PixelType::Type type = vorn::getPixelType(name);
    std::cout << '"' << name << "\" -> type " << type << ", " << vorn::getSizeOf(type)
              << " byte(s) per pixel, " << region.volume() * vorn::getSizeOf(type)
              << " bytes for the region" << std::endl;
  }

  vorn::Parameter threshold("threshold", "128");
  threshold.print();
  std::cout << std::endl
            << "threshold as a byte: " << int(vorn::Convert<unsigned char>(threshold.getValue()))
            << std::endl;
  return 0;
}
