// Functions of D: a template, a nested function, a class, and a loop that is inlined into.
module main;

interface Shape
{
    double area() const;
}

class Square : Shape
{
    this(double side) { this.side = side; }
    double area() const { return side * side; }
    private double side;
}

T largest(T)(const T[] values)
{
    T found = values[0];
    foreach (value; values)
        if (value > found)
            found = value;
    return found;
}

int weigh(int count)
{
    int total;
    void add(int n)
    {
        if (n % 3 != 0)
            total += n;
    }
    foreach (n; 0 .. count)
        add(n);
    return total;
}

int main(string[] arguments)
{
    const Shape shape = new Square(arguments.length + 1.5);
    return weigh(cast(int) arguments.length) + largest([3, 1, 2]) + cast(int) largest([shape.area(), 1.0]) > 1000;
}
