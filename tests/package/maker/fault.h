// The first base of the manufacturer's exception. It has a virtual function before the destructor.
namespace orbatovra {

class Fault {
  public:
    virtual int number() const { return 7; }
    virtual ~Fault() = default;
};

}  // namespace orbatovra
