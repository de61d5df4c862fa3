// A client of the installed package: it must compile warning-free against the installed
// headers alone and link and run against the installed libraries.
#include <vorn/vorn.hpp>

int main() {
  vorn::Box box(2);
  box.m_size[0] = 3;
  box.m_size[1] = 4;
  const bool typesOk =
      vorn::getPixelType(vorn::getTypeIdName(vorn::PixelType::SHORT)) == vorn::PixelType::SHORT;
  const bool hostOk = zelTools::isMapping<float, std::string>("float");
  return box.volume() == 12 && typesOk && hostOk ? 0 : 1;
}
